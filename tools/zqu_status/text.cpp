#include "text.hpp"

#include <algorithm>
#include <array>
#include <ctime>

namespace zqu::status_tool {

namespace {

constexpr std::int64_t minute = 60;
constexpr std::int64_t hour = 60 * minute;
constexpr std::int64_t day = 24 * hour;

bool in_range(unsigned char byte, unsigned low, unsigned high) {
    return byte >= low && byte <= high;
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
