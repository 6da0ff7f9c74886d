// Texts for people and for other programs: escaped for where they are shown, durations, times.
//
// Pure functions; they fail on lack of memory only.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace zqu::tools {

// text without the invisible characters at both ends, except ASCII: blank, zero-width and direction-changing ones.
[[nodiscard]] std::string without_invisible(std::string text);

// text as UTF-8: every byte that belongs to no well-formed sequence (RFC 3629) becomes U+FFFD.
[[nodiscard]] std::string as_utf8(const std::string& text);

// For a terminal: every control byte, byte that is not UTF-8 and invisible character as \xNN.
[[nodiscard]] std::string printable(const std::string& text);

// printable(text) in double quotes.
[[nodiscard]] std::string quoted(const std::string& text);

// The same; a text of more than 80 bytes is cut, and "..." follows.
[[nodiscard]] std::string excerpt(const std::string& text);

// For monitoring systems: printable ASCII on one line. A backslash, a vertical bar and every other byte become \xNN in
// lower case. A text of more bytes than most is cut, and "..." follows.
[[nodiscard]] std::string shown(const std::string& text, std::size_t most = 200);

// A line for a shell: command, "--" and the paths, quoted. Empty when a path holds anything but printable ASCII: some
// terminals and forms would change it.
[[nodiscard]] std::string shell_line(const std::string& command, const std::vector<std::string>& paths);

// path without "." and ".." and slashes that do not count; empty for the working directory. Links are not looked at.
[[nodiscard]] std::filesystem::path normal(const std::filesystem::path& path);

// Whether the text of path, so simplified, is that of the directory or lies below it. Nothing is within "".
[[nodiscard]] bool is_within(const std::filesystem::path& path, const std::filesystem::path& directory);

// Each byte as two of the hexadecimal digits given.
[[nodiscard]] std::string hex(const std::string& bytes, const char* digits = "0123456789abcdef");

// The seconds in a duration such as "90", "90s", "5m", "2h", "1d" or "1w". No value for another text, or for more than
// ten digits.
[[nodiscard]] std::optional<std::int64_t> parse_duration(const std::string& text);

// A duration in its two largest units: "12 s", "5 min", "1 h 30 min", "2 d 4 h". Seconds are left out from an hour on.
[[nodiscard]] std::string duration_text(std::int64_t seconds);

// A point in time, in seconds since the Unix epoch: "2026-11-21 14:30:00 UTC"; "@" and the number beyond the years that
// gmtime_r(3) knows.
[[nodiscard]] std::string utc_text(std::int64_t epoch);

}  // namespace zqu::tools
