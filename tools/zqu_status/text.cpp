#include "text.hpp"

#include <algorithm>
#include <array>
#include <ctime>

namespace zqu::status_tool {

namespace {

constexpr std::int64_t minute = 60;
constexpr std::int64_t hour = 60 * minute;
constexpr std::int64_t day = 24 * hour;

unsigned char byte_at(const std::string& text, std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

bool in_range(unsigned char byte, unsigned low, unsigned high) {
    return byte >= low && byte <= high;
}

// Length of the well-formed sequence that begins at the position (RFC 3629, section 4); 0 when none does.
std::size_t sequence_length(const std::string& text, std::size_t at) {
    const unsigned char first = byte_at(text, at);
    if (first < 0x80) {
        return 1;
    }
    const std::size_t length = in_range(first, 0xC2, 0xDF)   ? 2
                               : in_range(first, 0xE0, 0xEF) ? 3
                               : in_range(first, 0xF0, 0xF4) ? 4
                                                             : 0;
    const unsigned low = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;   // no overlong forms
    const unsigned high = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;  // no surrogates, nothing too large
    if (length == 0 || !in_range(byte_at(text, at + 1), low, high)) {
        return 0;
    }
    for (std::size_t i = 2; i < length; ++i) {
        if (!in_range(byte_at(text, at + i), 0x80, 0xBF)) {
            return 0;
        }
    }
    return length;
}

std::string pair_text(std::int64_t large, const char* large_unit, std::int64_t small, const char* small_unit) {
    const std::string text = std::to_string(large) + large_unit;
    return small == 0 ? text : text + " " + std::to_string(small) + small_unit;
}

std::int64_t unit_seconds(char unit) {
    return unit == 's' ? 1 : unit == 'm' ? minute : unit == 'h' ? hour : unit == 'd' ? day : 0;
}

}  // namespace

std::string shown(const std::string& text) {
    static const char digits[] = "0123456789abcdef";
    std::string result;
    for (const char c : text.substr(0, shown_bytes)) {
        if (in_range(static_cast<unsigned char>(c), 0x20, 0x7E) && c != '\\' && c != '|') {
            result += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            result = result + "\\x" + digits[byte >> 4] + digits[byte & 0x0F];
        }
    }
    return text.size() > shown_bytes ? result + "..." : result;
}

std::string shell_line(const std::string& command, const std::vector<std::string>& paths) {
    std::string line = command + " --";
    for (const std::string& path : paths) {
        line += " '";
        for (const char c : path) {
            if (!in_range(static_cast<unsigned char>(c), 0x20, 0x7E)) {
                return "";
            }
            line += c == '\'' ? "'\\''" : std::string(1, c);
        }
        line += "'";
    }
    return line;
}

std::string as_utf8(const std::string& text) {
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = sequence_length(text, at);
        result += length == 0 ? std::string("\xEF\xBF\xBD") : text.substr(at, length);
        at += std::max<std::size_t>(length, 1);
    }
    return result;
}

std::optional<std::int64_t> parse_duration(const std::string& text) {
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const std::string unit = text.substr(digits);
    const std::int64_t factor = unit.empty() ? 1 : unit_seconds(unit.front());
    if (digits == 0 || digits > 10 || unit.size() > 1 || factor == 0) {
        return std::nullopt;
    }
    return std::stoll(text.substr(0, digits)) * factor;
}

std::string duration_text(std::int64_t seconds) {
    if (seconds < minute) {
        return std::to_string(seconds) + " s";
    }
    if (seconds < hour) {
        return pair_text(seconds / minute, " min", seconds % minute, " s");
    }
    if (seconds < day) {
        return pair_text(seconds / hour, " h", seconds % hour / minute, " min");
    }
    return pair_text(seconds / day, " d", seconds % day / hour, " h");
}

std::string utc_text(std::int64_t epoch) {
    const std::time_t time = epoch;
    std::tm broken_down{};
    std::array<char, 64> text{};
    if (gmtime_r(&time, &broken_down) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &broken_down) == 0) {
        return "@" + std::to_string(epoch);
    }
    return text.data();
}

}  // namespace zqu::status_tool
