// A configuration file as the daemon would read it: its text, its lines, and the settings they come to.
//
// Held against the daemon's own reader each time: what these two do not agree on is never told.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "scan.hpp"

namespace zqu::config_tool {

// The lines were understood otherwise than by the daemon's own reader: a defect of this tool.
class Disagreement : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Reading {
    std::string path;
    std::string trouble;  // why there is no text, and what the daemon makes of that; empty when there is
    std::string text;
    std::vector<Line> lines;
    Effective effective;  // without a text: the defaults
};

// Reads the regular file at path. Anything else, what cannot be read to its end and what is longer than
// tools::largest_config is trouble; never waits for a FIFO or a device. Throws Disagreement, and std::system_error when
// there is no memory file for the daemon's reader.
[[nodiscard]] Reading read_configuration(const std::string& path);

}  // namespace zqu::config_tool
