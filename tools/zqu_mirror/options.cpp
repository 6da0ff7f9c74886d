#include "options.hpp"

#include <algorithm>
#include <map>

#include "names.hpp"

namespace zqu::mirror_tool {

namespace {

std::string folder_url(const std::string& mirror) {
    static const char digits[] = "0123456789ABCDEF";
    std::string url = "file://";
    for (const char c : mirror) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '/' || unusable_name(std::string(1, c) + "-").empty()) {
            url += c;
        } else {
            url = url + '%' + digits[byte >> 4] + digits[byte & 0x0F];
        }
    }
    return url;
}

}  // namespace

bool is_url(const std::string& mirror) {
    return mirror.find("://") != std::string::npos;
}

std::filesystem::path folder(const Options& options) {
    const auto start = std::min(options.subdir.find_first_not_of('/'), options.subdir.size());
    return std::filesystem::path(options.mirror) / options.subdir.substr(start);
}

std::int64_t age_s(const std::string& text) {
    static const std::map<char, std::int64_t> units{{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}, {'w', 604800}};
    constexpr std::size_t most_digits = 6;  // beyond any age, and no product overflows
    const auto digits = text.find_first_not_of("0123456789");
    if (digits == 0 || digits > most_digits || digits + 1 != text.size() || units.count(text.back()) == 0) {
        return -1;
    }
    return std::stol(text) * units.at(text.back());
}

zqu::Config upstream_config(const Options& options) {
    Options upstream = options;
    upstream.mirror = options.upstream;
    upstream.subdir = options.upstream_subdir.empty() ? options.subdir : options.upstream_subdir;
    return client_config(upstream);
}

zqu::Config client_config(const Options& options) {
    zqu::Config cfg;
    cfg.mirror_base_url = is_url(options.mirror) ? options.mirror : folder_url(options.mirror);
    cfg.mirror_subdir = options.subdir;
    cfg.flavor = options.flavor;
    cfg.ca_path = options.ca;
    cfg.http_timeout_s = options.timeout_s;
    return cfg;
}

}  // namespace zqu::mirror_tool
