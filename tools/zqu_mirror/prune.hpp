// The command that removes old releases, and what killed runs have left.
#pragma once

#include "options.hpp"
#include "run.hpp"

namespace zqu::mirror_tool {

// Removes releases of options.flavor by number (options.keep) and age (options.older_than_s), the archives that no INI
// names, and the work folder of a killed run; prints one line for each and the total, as what would be done with
// options.dry_run, which removes nothing. options.mirror is an absolute folder.
//
// Never removed are: what a hit INI names, of any flavor, even when it is changed while the run goes on, other than in
// the instant between the last look and the removal; and what a client on its way may still ask for, because it was
// current, or had not been named yet, within options.grace_s. An archive stays as long as another INI names it.
//
// A release's INI goes first, then its archive; a signal takes effect between two releases. Throws when anything cannot
// be understood or removed, or another run is at work; what is gone by then stays gone, the rest is left.
void prune(const Options& options, Run& run);

}  // namespace zqu::mirror_tool
