// The daemon's settings, read for the operators' tools with the daemon's own code.
//
// Stateless; may be called from any thread.
#pragma once

#include <string>

#include "config.hpp"

namespace zqu::tools {

// Where the daemon looks for its configuration when no --config names another file.
inline constexpr const char* default_config_path = "/usr/local/zelgw/opt/av/quorin/etc/zel_quorin_updater.conf";

// What the daemon makes of a configuration file.
struct Settings {
    zqu::Config cfg;      // with fatal: what the lines before the malformed number left
    bool opened = false;  // false: the daemon warns and goes on with the defaults
    bool fatal = false;   // true: a malformed number ends the daemon before it does anything
};

// Reads path as the daemon does at its start: defaults first, then Config::load. Prints nothing. Throws what
// Config::load throws for other reasons than a malformed number (std::bad_alloc).
[[nodiscard]] Settings read_settings(const std::string& path);

}  // namespace zqu::tools
