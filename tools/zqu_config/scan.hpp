// The lines of a configuration file, and what they come to: the daemon's rules told a second time, with line numbers.
//
// Pure functions of the text; they fail on lack of memory only.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "config.hpp"

namespace zqu::config_tool {

struct Line {
    enum class Kind { blank, comment, no_equals, setting };

    std::size_t number = 0;  // from 1
    Kind kind = Kind::blank;
    std::string text;   // trimmed
    std::string key;    // of a setting; trimmed
    std::string value;  // of a setting; trimmed
};

struct Effective {
    zqu::Config cfg;                            // with fatal: what the lines before it left
    std::map<std::string, std::size_t> set_on;  // key: the line that has its value; no entry: its default
    std::size_t fatal = 0;                      // the line whose number ends the daemon at its start; 0: none
    [[nodiscard]] std::size_t line(const std::string& key) const;  // 0: its default
};

// All lines of text, split at line feeds.
[[nodiscard]] std::vector<Line> scan(const std::string& text);

// What the daemon would go by.
[[nodiscard]] Effective evaluate(const std::vector<Line>& lines);

}  // namespace zqu::config_tool
