#include "number.hpp"

#include <cstddef>
#include <limits>

namespace zqu::config_tool {

Number read_number(const std::string& text) {
    constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();
    Number number;
    number.sign = !text.empty() && (text.front() == '+' || text.front() == '-');
    const bool minus = !text.empty() && text.front() == '-';
    std::uint64_t magnitude = 0;
    std::size_t i = number.sign ? 1 : 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const auto digit = static_cast<std::uint64_t>(text[i] - '0');
        number.digits = true;
        number.too_large = number.too_large || magnitude > (largest - digit) / 10;
        magnitude = magnitude * 10 + digit;
    }
    number.rest = text.substr(i);
    number.value = static_cast<std::uint32_t>(minus ? 0 - magnitude : magnitude);
    number.other = magnitude > std::numeric_limits<std::uint32_t>::max() || (minus && magnitude != 0);
    return number;
}

}  // namespace zqu::config_tool
