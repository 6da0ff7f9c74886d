// The daemon's status file, read by somebody else than its writer.
//
// Nothing is kept between calls. The daemon rewrites the file in place: callers read a truncated one again.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "snapshot_store.hpp"

namespace zqu::status_tool {

// A longer status file is not looked at: every text in it is one that a mirror gave.
inline constexpr std::size_t status_limit = 65536;

// What came of reading a status file.
enum class StatusState {
    valid,
    missing,      // there is none
    unreadable,   // it may not or cannot be read
    not_regular,  // something else is in its place, a link included; not opened
    too_long,     // more than status_limit bytes
    unfinished,   // the beginning of a status file, or nothing
    invalid,      // no status file: bad JSON, a member missing, twice or of another type, a negative time
    schema,       // of another schema version
};

struct StatusFile {
    StatusState state = StatusState::missing;
    std::string reason;                // of every state but valid, for people; may hold foreign bytes
    SnapshotStore::Status contents{};  // with valid; texts as valid UTF-8
    bool empty = false;                // with unfinished: it holds nothing
};

// The name of a state, as JSON tells it: "valid", "not_regular".
[[nodiscard]] const char* name_of(StatusState state);

// Parses the text of a status file. Control characters inside texts, which the daemon writes as they are, are borne;
// bytes that are no UTF-8 become U+FFFD. Members beyond the eight of schema 1 are ignored. Never throws for what text
// holds.
[[nodiscard]] StatusFile parse_status(const std::string& text);

// Reads the status file at path. Opens regular files only, and never waits for anything.
[[nodiscard]] StatusFile read_status(const std::string& path);

}  // namespace zqu::status_tool
