// The command that reads a mirror the way a client does.
#pragma once

#include "options.hpp"
#include "run.hpp"

namespace zqu::mirror_tool {

// Downloads the archive of the current release into a scratch folder of the run below the folder for temporaries
// ($TMPDIR or /tmp), checks it (inspect.hpp), and prints one line per step: "ok", "warning" (clients succeed all the
// same) or "FAULT" (clients fail, or cannot read the index that is there). A FAULT ends the check, but for those of
// the archive's entries, which are all printed. options.mirror is an absolute folder or a URL.
//
// Returns true when there was no fault. Throws, with the reason as its text, when the scratch folder cannot be made or
// used, and what inspect() throws. Never writes to the mirror.
[[nodiscard]] bool check(const Options& options, Run& run);

}  // namespace zqu::mirror_tool
