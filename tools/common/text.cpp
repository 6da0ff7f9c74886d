#include "text.hpp"

#include <unictype.h>
#include <unistr.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <map>

namespace zqu::tools {

namespace {

constexpr std::int64_t minute = 60;
constexpr std::int64_t hour = 60 * minute;
constexpr std::int64_t day = 24 * hour;

struct Character {
    ucs4_t code = 0;
    std::size_t length = 0;  // in bytes; 0: no UTF-8 there
};

Character decode(const std::string& text, std::size_t position) {
    Character found;
    if (position < text.size()) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data()) + position;
        const int length = u8_mbtoucr(&found.code, bytes, text.size() - position);
        found.length = static_cast<std::size_t>(std::max(length, 0));
    }
    return found;
}

// The length in bytes of the invisible character beyond ASCII that text has at position; 0 when there is none.
std::size_t invisible_at(const std::string& text, std::size_t position) {
    const auto [code, length] = decode(text, position);
    const bool invisible = code >= 0x80 && (uc_is_property_default_ignorable_code_point(code) ||
                                            uc_is_general_category_withtable(
                                                code, UC_CATEGORY_MASK_Z | UC_CATEGORY_MASK_Cc | UC_CATEGORY_MASK_Cf));
    return invisible ? length : 0;
}

bool is_ascii_text(char c) {
    return c >= 0x20 && c <= 0x7E;
}

}  // namespace

std::string without_invisible(std::string text) {
    while (const std::size_t length = invisible_at(text, 0)) {
        text.erase(0, length);
    }
    std::size_t end = 0;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t invisible = invisible_at(text, i);
        i += invisible != 0 ? invisible : 1;
        end = invisible != 0 ? end : i;
    }
    return text.substr(0, end);
}

std::string as_utf8(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = decode(text, i).length;
        out += length == 0 ? std::string("\xEF\xBF\xBD") : text.substr(i, length);
        i += std::max<std::size_t>(length, 1);
    }
    return out;
}

std::string printable(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        const auto [code, length] = decode(text, i);
        const bool good = length > 1 ? invisible_at(text, i) == 0 : length == 1 && is_ascii_text(text[i]);
        for (const std::size_t end = i + std::max<std::size_t>(length, 1); i < end; ++i) {
            out += good ? text.substr(i, 1) : "\\x" + hex(text.substr(i, 1), "0123456789ABCDEF");
        }
    }
    return out;
}

std::string quoted(const std::string& text) {
    return '"' + printable(text) + '"';
}

std::string excerpt(const std::string& text) {
    constexpr std::size_t most = 80;
    return quoted(text.substr(0, most)) + (text.size() > most ? "..." : "");
}

std::string shown(const std::string& text, std::size_t most) {
    std::string result;
    for (const char c : text.substr(0, most)) {
        result += is_ascii_text(c) && c != '\\' && c != '|' ? std::string(1, c) : "\\x" + hex(std::string(1, c));
    }
    return text.size() > most ? result + "..." : result;
}

std::string shell_line(const std::string& command, const std::vector<std::string>& paths) {
    std::string line = command + " --";
    for (const std::string& path : paths) {
        if (!std::all_of(path.begin(), path.end(), is_ascii_text)) {
            return "";
        }
        line += " '";
        for (const char c : path) {
            line += c == '\'' ? "'\\''" : std::string(1, c);
        }
        line += "'";
    }
    return line;
}

std::filesystem::path normal(const std::filesystem::path& path) {
    return (path / ".").lexically_normal().parent_path();
}

bool is_within(const std::filesystem::path& path, const std::filesystem::path& directory) {
    const auto inner = normal(path);
    const auto outer = normal(directory);
    return !outer.empty() && std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first == outer.end();
}

std::string hex(const std::string& bytes, const char* digits) {
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text = text + digits[byte >> 4] + digits[byte & 0x0F];
    }
    return text;
}

std::optional<std::int64_t> parse_duration(const std::string& text) {
    static const std::map<std::string, std::int64_t> units{{"", 1},     {"s", 1},   {"m", minute},
                                                           {"h", hour}, {"d", day}, {"w", 7 * day}};
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const auto unit = units.find(text.substr(digits));
    if (digits == 0 || digits > 10 || unit == units.end()) {
        return std::nullopt;
    }
    return std::stoll(text.substr(0, digits)) * unit->second;
}

std::string duration_text(std::int64_t seconds) {
    static constexpr std::array<std::pair<std::int64_t, const char*>, 5> units{
        {{day, " d"}, {hour, " h"}, {minute, " min"}, {1, " s"}, {1, ""}}};
    const auto* const large =
        std::find_if(units.begin(), units.end() - 2, [seconds](const auto& unit) { return unit.first <= seconds; });
    const auto* const small = large + 1;
    const std::int64_t rest = seconds % large->first / small->first;
    return std::to_string(seconds / large->first) + large->second +
           (rest == 0 ? "" : " " + std::to_string(rest) + small->second);
}

std::string utc_text(std::int64_t epoch) {
    const std::chrono::duration<std::time_t> since = std::chrono::seconds(epoch);
    const std::time_t time = since.count();  // which has 32 bits on some platforms
    std::tm broken_down{};
    std::array<char, 64> text{};
    if (time != epoch || gmtime_r(&time, &broken_down) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &broken_down) == 0) {
        return "@" + std::to_string(epoch);
    }
    return text.data();
}

}  // namespace zqu::tools
