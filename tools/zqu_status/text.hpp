// Texts for people, terminals and other programs: durations, points in time, and what may be shown of foreign bytes.
//
// Pure functions; safe from any thread. None fails but for want of memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zqu::status_tool {

// Longest text of foreign origin that is shown, in bytes before escaping.
inline constexpr std::size_t shown_bytes = 200;

// text as printable ASCII on one line, fit for a terminal, a log and a monitoring system: a backslash, a vertical bar
// and every byte that is not printable ASCII become "\xNN" (lower case). What exceeds shown_bytes becomes "...".
[[nodiscard]] std::string shown(const std::string& text);

// A line for a shell: command, "--" and the paths, quoted. Empty when a path holds anything but printable ASCII: not
// every terminal and form would leave it as it is.
[[nodiscard]] std::string shell_line(const std::string& command, const std::vector<std::string>& paths);

// The seconds that a duration such as "90", "90s", "15m", "4h" or "2d" stands for; no value when text is none, or one
// of more than ten digits.
[[nodiscard]] std::optional<std::int64_t> parse_duration(const std::string& text);

// A duration in its two largest units: "12 s", "5 min", "1 h 30 min", "2 d 4 h". Seconds are left out from an hour on.
[[nodiscard]] std::string duration_text(std::int64_t seconds);

// A point in time, in seconds since the Unix epoch: "2026-11-21 14:30:00 UTC"; "@" and the number beyond the years that
// gmtime_r(3) knows.
[[nodiscard]] std::string utc_text(std::int64_t epoch);

}  // namespace zqu::status_tool
