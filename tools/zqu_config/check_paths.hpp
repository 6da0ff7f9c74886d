// What the daemon, run by its user, will find at the paths of its configuration.
#pragma once

#include "finding.hpp"
#include "reading.hpp"
#include "user.hpp"

namespace zqu::config_tool {

// Adds to findings what is said of the configuration file itself, the certificates, the definitions root and the status
// file. Opens nothing but the certificates, and those only when they are a regular file; writes nothing. reading has a
// text, and no fatal line. Throws what refusal() throws.
void check_paths(const Reading& reading, const User& user, Findings& findings);

}  // namespace zqu::config_tool
