// Everything that zqu-status looks at, at one moment.
//
// The caller owns the result. Only collects facts; findings.hpp judges them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "config.hpp"
#include "layout.hpp"
#include "status_file.hpp"
#include "store.hpp"

namespace zqu::status_tool {

// What the daemon makes, or would make, of its configuration.
enum class ConfigState {
    read,
    missing,     // the daemon goes on with the defaults
    unreadable,  // not for us: what the daemon reads there is not known
    malformed,   // the daemon does not start
};

struct Facts {
    std::string config_path;
    ConfigState config_state = ConfigState::read;
    std::string config_reason;  // why it is unreadable
    Config cfg;                 // what the daemon goes by; of no use when unreadable or malformed
    bool looked = false;        // whether status and store were looked at: not when cfg is of no use
    StatusFile status;
    Store store;
    Layout layout;
    std::int64_t now = 0;  // seconds since the Unix epoch, once all was looked at
};

// A stretch of time, in seconds since the Unix epoch.
struct Span {
    std::int64_t earliest = 0;
    std::int64_t latest = 0;
};

// When the next check is to be expected by the last one and the settings, but for as long as the last one took. No
// value when the time of the last one is not known or too far ahead to reckon with.
[[nodiscard]] std::optional<Span> next_check(const Facts& facts);

// The name of a state, as JSON tells it: "read", "malformed".
[[nodiscard]] const char* name_of(ConfigState state);

// Looks at the configuration at path and at what it names. While the daemon is at work on them, that is while the
// status file is short or tells of another version than the link, or the link changes, it looks again: 25 times at
// most, 20 ms apart. Never waits for anything else. Throws for want of memory only.
[[nodiscard]] Facts observe(const std::string& path);

}  // namespace zqu::status_tool
