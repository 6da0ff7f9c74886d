// A configuration file as the daemon reads it. What a line means is learnt from zqu::Config::load().
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "config.hpp"
#include "settings.hpp"

namespace zqu::config_tool {

// A line that is not blank.
struct Line {
    enum class Fatal { no, no_digits, too_large };

    std::size_t number = 0;                // from 1
    std::string text;                      // trimmed
    std::string key;                       // before the first "=", trimmed; for messages only
    std::string value;                     // after it, likewise
    const tools::Setting* sets = nullptr;  // what the daemon takes from this line, or null
    std::string daemons_value{};           // the value that it takes
    Fatal fatal = Fatal::no;               // why the line ends the daemon at its start
};

struct Reading {
    std::string path;
    std::string trouble;  // why the file cannot be read; empty when it can be
    bool denied = false;  // the trouble is this program's user's only
    std::vector<Line> lines;
    zqu::Config cfg;        // without a text: the defaults; with a fatal line: what the lines before it left
    std::size_t fatal = 0;  // the first line that ends the daemon at its start; 0: none
    std::map<std::string, std::size_t> set_on;  // key: the line that has its value

    // 0: the key has its default.
    [[nodiscard]] std::size_t line(const std::string& key) const;
};

// Reads the regular file at path. Anything else, what cannot be read to its end and what is longer than
// tools::largest_config is trouble; never waits for a FIFO or a device. Throws std::system_error when the daemon's
// reader cannot be given a file in memory.
[[nodiscard]] Reading read_configuration(const std::string& path);

// The settings, where each comes from, and what follows from them; or the trouble or the fatal line alone.
[[nodiscard]] std::string shown_as_text(const Reading& reading);
[[nodiscard]] std::string shown_as_json(const Reading& reading);

}  // namespace zqu::config_tool
