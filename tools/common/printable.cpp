#include "printable.hpp"

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace zqu::tools {

namespace {

struct Character {
    std::uint32_t code = 0;
    std::size_t length = 0;  // in bytes; 0: no UTF-8 there
};

unsigned char byte_at(const std::string& text, std::size_t position) {
    return position < text.size() ? static_cast<unsigned char>(text[position]) : 0;
}

std::size_t length_by(unsigned char lead) {
    if (lead < 0x80) {
        return 1;
    }
    if (lead < 0xC2 || lead > 0xF4) {
        return 0;
    }
    return lead < 0xE0 ? 2 : (lead < 0xF0 ? 3 : 4);
}

// RFC 3629: no character longer than it has to be, no surrogate, none beyond U+10FFFF.
Character decode(const std::string& text, std::size_t position) {
    static constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    static constexpr unsigned char lead_bits[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    const std::size_t length = length_by(byte_at(text, position));
    std::uint32_t code = byte_at(text, position) & lead_bits[length];
    for (std::size_t i = 1; i < length; ++i) {
        const unsigned char next = byte_at(text, position + i);
        if ((next & 0xC0) != 0x80) {
            return {};
        }
        code = (code << 6) | (next & 0x3F);
    }
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (length == 0 || code < smallest[length] || surrogate || code > 0x10FFFF) {
        return {};
    }
    return {code, length};
}

bool is_invisible(std::uint32_t code) {
    struct Range {
        std::uint32_t first, last;
    };
    static constexpr Range ranges[] = {
        {0x80, 0xA0},        // controls, the no-break space
        {0xAD, 0xAD},        // the soft hyphen
        {0x34F, 0x34F},      // the combining grapheme joiner
        {0x61C, 0x61C},      // the Arabic mark of direction
        {0x115F, 0x1160},    // the Hangul fillers
        {0x1680, 0x1680},    // the Ogham space
        {0x180B, 0x180F},    // the Mongolian separators
        {0x2000, 0x200F},    // spaces, zero-width characters, marks of direction
        {0x2028, 0x202F},    // separators, changes of direction, the narrow no-break space
        {0x205F, 0x206F},    // the mathematical space, the word joiner, isolates
        {0x3000, 0x3000},    // the ideographic space
        {0x3164, 0x3164},    // another Hangul filler
        {0xFE00, 0xFE0F},    // the selectors of variants
        {0xFEFF, 0xFEFF},    // the byte order mark
        {0xFFA0, 0xFFA0},    // another Hangul filler
        {0xFFF9, 0xFFFB},    // annotations
        {0xE0000, 0xE0FFF},  // tags, more selectors of variants
    };
    return std::any_of(std::begin(ranges), std::end(ranges),
                       [code](const Range& range) { return code >= range.first && code <= range.last; });
}

// The length in bytes of the invisible character that text has at position; 0 when there is another one.
std::size_t invisible_at(const std::string& text, std::size_t position) {
    const Character character = decode(text, position);
    return is_invisible(character.code) ? character.length : 0;
}

void append_escaped(std::string& out, unsigned char byte) {
    static const char digits[] = "0123456789ABCDEF";
    out = out + "\\x" + digits[byte >> 4] + digits[byte & 0x0F];
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
        const bool shown = length != 0 && code >= 0x20 && code != 0x7F && !is_invisible(code);
        for (const std::size_t end = i + (length == 0 ? 1 : length); i < end; ++i) {
            if (shown) {
                out += text[i];
            } else {
                append_escaped(out, byte_at(text, i));
            }
        }
    }
    return out;
}

std::string quoted(const std::string& text) {
    return '"' + printable(text) + '"';
}

std::string excerpt(const std::string& text) {
    constexpr std::size_t most = 80;
    if (text.size() <= most) {
        return quoted(text);
    }
    std::size_t end = most;
    while ((byte_at(text, end) & 0xC0) == 0x80 && end > most - 4) {
        --end;  // not in the middle of a character
    }
    return quoted(text.substr(0, end)) + "...";
}

}  // namespace zqu::tools
