// What the daemon makes of the value of a numeric key, told a second time: strtoul(3) in base 10, and the low 32 bits.
//
// A pure function; it fails on lack of memory only.
#pragma once

#include <cstdint>
#include <string>

namespace zqu::config_tool {

struct Number {
    bool digits = false;      // false: the daemon ends at its start; nothing below has a meaning
    bool too_large = false;   // beyond 64 bits: the daemon ends at its start
    bool sign = false;        // "+" or "-" comes first
    bool other = false;       // the value is another number than the one written
    std::uint32_t value = 0;  // what the daemon goes by
    std::string rest;         // what comes after the digits, and is ignored
};

// text has no white space at its ends.
[[nodiscard]] Number read_number(const std::string& text);

}  // namespace zqu::config_tool
