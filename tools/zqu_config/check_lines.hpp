// What the daemon swallows of the lines of a configuration file.
//
// Pure functions; they fail on lack of memory only.
#pragma once

#include <vector>

#include "finding.hpp"
#include "scan.hpp"

namespace zqu::config_tool {

// Adds to findings what lines hold that has no effect, or another one than it seems.
void check_lines(const std::vector<Line>& lines, Findings& findings);

}  // namespace zqu::config_tool
