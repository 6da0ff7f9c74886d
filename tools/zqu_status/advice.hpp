// What the texts of the status file's last_error mean, and what to do about them.
//
// Pure function; safe from any thread. Fails for want of memory only.
#pragma once

#include <string>

namespace zqu::status_tool {

// One line of printable ASCII for a last_error; a text that the daemon does not write is said to be unknown.
[[nodiscard]] std::string advice_for(const std::string& last_error);

}  // namespace zqu::status_tool
