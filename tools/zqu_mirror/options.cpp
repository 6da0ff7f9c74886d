#include "options.hpp"

#include <algorithm>

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

zqu::Config client_config(const Options& options) {
    zqu::Config cfg;
    cfg.mirror_base_url = is_url(options.mirror) ? options.mirror : folder_url(options.mirror);
    cfg.mirror_subdir = options.subdir;
    cfg.flavor = options.flavor;
    cfg.ca_path = options.ca;
    return cfg;
}

}  // namespace zqu::mirror_tool
