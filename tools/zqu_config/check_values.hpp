// What the settings that a file comes to mean for the mirror and for the loop.
//
// Pure functions; they fail on lack of memory only.
#pragma once

#include "finding.hpp"
#include "scan.hpp"

namespace zqu::config_tool {

// Adds to findings what is said of the three keys that make up the mirror's URLs, of the engine's version and of the
// numbers. effective has no fatal line. Never repeats the credentials of a URL.
void check_values(const Effective& effective, Findings& findings);

}  // namespace zqu::config_tool
