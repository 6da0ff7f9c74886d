// What the fuzz targets hold the readers of key = value texts to: the rules told once more, on other means.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace zqu::fuzz {

inline void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

inline std::string stripped(const std::string& text) {
    static constexpr char space[] = " \t\n\v\f\r";
    const auto first = text.find_first_not_of(space);
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(space) - first + 1);
}

inline std::string lowered(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

// The keys and values of all lines that hold "=" and whose first visible character is none of skipped, in order.
inline std::vector<std::pair<std::string, std::string>> pairs_of(const std::string& text, const std::string& skipped) {
    std::vector<std::pair<std::string, std::string>> pairs;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        line = stripped(line);
        const auto equals = line.find('=');
        if (equals != std::string::npos && skipped.find(line[0]) == std::string::npos) {
            pairs.emplace_back(stripped(line.substr(0, equals)), stripped(line.substr(equals + 1)));
        }
    }
    return pairs;
}

}  // namespace zqu::fuzz
