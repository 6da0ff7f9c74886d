// Asks the mirror for its current release, as the daemon does.
#pragma once

#include "finding.hpp"
#include "scan.hpp"
#include "user.hpp"

namespace zqu::config_tool {

// Fetches the hit INI and the complete-info INI as user, with the settings of effective, in a child process that is
// killed after timeout_s seconds. Adds to findings a note with the release that the mirror names, or an error with the
// reason. The environment's proxies are this process's, not the daemon's. Throws std::system_error when there is no
// child process to be had.
void check_online(const Effective& effective, const User& user, unsigned timeout_s, Findings& findings);

}  // namespace zqu::config_tool
