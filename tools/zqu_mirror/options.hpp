// What the command line says, and where that leads: the mirror's folder, and a client's settings.
//
// Pure functions; none fails.
#pragma once

#include <filesystem>
#include <string>

#include "config.hpp"

namespace zqu::mirror_tool {

// The options of all commands; each reads those it has.
struct Options {
    std::string mirror;  // its root folder, absolute; or its URL, where a command takes one
    std::string subdir = zqu::Config().mirror_subdir;
    std::string flavor = zqu::Config().flavor;
    std::string id;
    std::string antivir;   // path of the antivir definition file
    std::string aivsecon;  // path of the aivsecon definition file
    std::string ca;        // path of the certificates to trust; empty for the system's
    bool zip = false;
};

// Whether mirror is a URL rather than a folder.
[[nodiscard]] bool is_url(const std::string& mirror);

// The folder that holds the mirror's files; for a mirror that is a folder.
[[nodiscard]] std::filesystem::path folder(const Options& options);

// The settings of a client of this mirror, be it a folder or a URL.
[[nodiscard]] zqu::Config client_config(const Options& options);

}  // namespace zqu::mirror_tool
