#include "options.hpp"

#include <algorithm>

#include "names.hpp"
#include "text.hpp"

namespace zqu::mirror_tool {

namespace {

std::string directory_url(const std::string& mirror) {
    std::string url = "file://";
    for (const char c : mirror) {
        const std::string byte(1, c);
        url += c == '/' || unusable_name(byte + "-").empty() ? byte : "%" + tools::hex(byte);
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

}  // namespace zqu::mirror_tool
