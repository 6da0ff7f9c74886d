// The command that reads a mirror the way a client does.
#pragma once

#include "options.hpp"
#include "run.hpp"

namespace zqu::mirror_tool {

// Downloads, verifies and unpacks the current release with the daemon's own code, in a scratch folder of the run below
// the folder for temporaries ($TMPDIR or /tmp), and prints one line per step: "ok", "warning" (clients succeed all the
// same) or "FAULT" (clients fail), the last of which ends the check. Only the two definition files are both looked at
// in any case. options.mirror is an absolute folder or a URL.
//
// Returns true when there was no fault. The core library logs its reasons to syslog(3). Throws, with the reason as its
// text, when the scratch folder cannot be made or used. Never writes to the mirror.
[[nodiscard]] bool check(const Options& options, Run& run);

}  // namespace zqu::mirror_tool
