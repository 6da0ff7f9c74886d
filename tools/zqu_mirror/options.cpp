#include "options.hpp"

#include <algorithm>
#include <climits>
#include <sstream>

#include "text.hpp"

namespace zqu::mirror_tool {

namespace {

const std::string hit_end = "-hit.ini";

std::string directory_url(const std::string& mirror) {
    std::string url = "file://";
    for (const char c : mirror) {
        const std::string byte(1, c);
        url += c == '/' || unusable_name(byte + "-").empty() ? byte : "%" + tools::hex(byte);
    }
    return url;
}

// The ends of the names of other files.
std::string reserved_end(const std::string& name) {
    for (const std::string end : {".ini", ".delta", ".upstream"}) {
        if (ends_with(name, end)) {
            return "must not end in " + end;
        }
    }
    return "";
}

}  // namespace

bool is_url(const std::string& mirror) {
    return mirror.find("://") != std::string::npos;
}

std::filesystem::path directory_of(const Options& options) {
    const auto start = std::min(options.subdir.find_first_not_of('/'), options.subdir.size());
    return std::filesystem::path(options.mirror) / options.subdir.substr(start);
}

zqu::Config upstream_config(const Options& options) {
    Options upstream = options;
    upstream.mirror = options.upstream;
    upstream.subdir = options.upstream_subdir.empty() ? options.subdir : options.upstream_subdir;
    return client_config(upstream);
}

zqu::Config client_config(const Options& options) {
    zqu::Config cfg;
    cfg.mirror_base_url = is_url(options.mirror) ? options.mirror : directory_url(options.mirror);
    cfg.mirror_subdir = options.subdir;
    cfg.flavor = options.flavor;
    cfg.ca_path = options.ca;
    cfg.http_timeout_s = options.timeout_s;
    return cfg;
}

const std::map<std::string, std::string> suffixes{{"cab", ".cab"}, {"zip", ".zip"}, {"zstd", ".zip.zst"}};

std::string format_of(const std::string& archive) {
    const auto found = std::find_if(suffixes.begin(), suffixes.end(),
                                    [&](const auto& each) { return ends_with(archive, each.second); });
    return found == suffixes.end() ? "" : found->first;
}

bool begins_with(const std::string& name, const std::string& start) {
    return name.compare(0, start.size(), start) == 0;
}

bool ends_with(const std::string& name, const std::string& end) {
    return name.size() >= end.size() && name.compare(name.size() - end.size(), end.size(), end) == 0;
}

// The daemon puts ids, flavors and subdirectories into URLs and paths as they stand. What survives that unencoded is a
// path segment's characters (RFC 3986, section 3.3) without the percent sign; "=" would part the index's keys.
std::string unusable_name(const std::string& name) {
    static const std::string marks = "-._~!$&'()*+,;:@";
    const auto usable = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               marks.find(c) != std::string::npos;
    };
    if (name.empty() || name == "." || name == "..") {
        return "must not be empty, \".\" or \"..\"";
    }
    if (!std::all_of(name.begin(), name.end(), usable)) {
        return "may hold only letters, digits and " + marks + " (clients could not fetch it otherwise)";
    }
    return "";
}

std::string unusable_id(const std::string& id) {
    const std::string unusable = unusable_name(id);
    const std::string reason = unusable.empty() ? reserved_end(id) : unusable;
    const bool of_hit = ends_with("-" + id, "-hit") || ("-" + id).find(hit_end) != std::string::npos;
    return reason.empty() && of_hit ? "must not be \"hit\", end in -hit or hold -hit.ini" : reason;
}

std::string unusable_archive(const std::string& name) {
    const bool of_hit = name.find(hit_end) != std::string::npos;  // a web server may serve it for a hit INI
    const bool too_long = name.size() + std::string(".part").size() > NAME_MAX;
    const std::string reasons[] = {unusable_name(name), begins_with(name, ".") ? "must not begin with a dot" : "",
                                   reserved_end(name), of_hit ? "must not hold -hit.ini" : "",
                                   too_long ? "is too long for a file name" : ""};
    const auto* const first =
        std::find_if(std::begin(reasons), std::end(reasons), [](const auto& reason) { return !reason.empty(); });
    return first == std::end(reasons) ? "" : *first;
}

std::string unusable_subdir(const std::string& subdir) {
    std::istringstream in(subdir);
    std::string reason;
    for (std::string part; reason.empty() && std::getline(in, part, '/');) {
        reason = part.empty() ? "" : unusable_name(part);
    }
    return reason;
}

std::string stem(const std::string& flavor, const std::string& id) {
    return "antivir-" + flavor + "-c-" + id;
}

std::string info_name(const std::string& flavor, const std::string& id) {
    return stem(flavor, id) + ".ini";
}

std::optional<std::string> id_in(const std::string& info, const std::string& flavor) {
    const std::string start = stem(flavor, "");
    const std::string end = ".ini";
    if (!begins_with(info, start) || !ends_with(info, end)) {
        return std::nullopt;
    }
    return info.substr(start.size(), info.size() - start.size() - end.size());
}

std::string hit_name(const std::string& flavor) {
    return "antivir-" + flavor + hit_end;
}

}  // namespace zqu::mirror_tool
