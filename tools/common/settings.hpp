// The daemon's settings, read for the operators' tools with the daemon's own code.
//
// Stateless; may be called from any thread.
#pragma once

#include <cstddef>
#include <string>

#include "config.hpp"

namespace zqu::tools {

// Where the daemon looks for its configuration when no --config names another file.
inline constexpr const char* default_config_path = "/usr/local/zelgw/opt/av/quorin/etc/zel_quorin_updater.conf";

// Bytes of a configuration that the tools look at. The daemon has no such bound, but a longer file is none: a sparse
// one or millions of lines would cost memory without end.
inline constexpr std::size_t largest_config = 1 << 20;

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
