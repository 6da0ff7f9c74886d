// The daemon's settings, read for the operators' tools with the daemon's own code.
//
// Stateless; may be called from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "config.hpp"

namespace zqu::tools {

// Where the daemon looks for its configuration when no --config names another file.
inline constexpr const char* default_config_path = "/usr/local/zelgw/opt/av/quorin/etc/zel_quorin_updater.conf";

// The user that the packaged service runs as, with a group of the same name.
inline constexpr const char* service_user = "zel-quorin";

// Bytes of a configuration that the tools look at. The daemon has no such bound.
inline constexpr std::size_t largest_config = 1 << 20;

template <typename Value>
using Member = Value zqu::Config::*;

// A setting and its member of Config: one of the two pointers is not null.
struct Setting {
    const char* name;
    Member<std::string> text;
    Member<std::uint32_t> number;

    // Its value in cfg, as text.
    [[nodiscard]] std::string of(const zqu::Config& cfg) const;
};

// All settings that the daemon knows, in the order of the members.
extern const std::array<Setting, 11> settings;

// The setting of exactly that name; null when there is none.
[[nodiscard]] const Setting* find_setting(const std::string& name);

// The malformed number that ends the daemon at its start.
enum class Fatal { no, no_digits, too_large };

// Adds to cfg what the daemon takes from path, up to a malformed number. Throws std::system_error when path cannot be
// opened; the daemon then goes on with the defaults.
[[nodiscard]] Fatal load_configuration(const std::string& path, zqu::Config& cfg);

}  // namespace zqu::tools
