// The commands. options.mirror is an absolute directory, or a URL where a command takes one. A command throws with the
// reason as text when it fails.
#pragma once

#include "options.hpp"
#include "run.hpp"

namespace zqu::mirror_tool {

// Packs the two definition files, puts the archive and its INI into the mirror's directory, reads them back as a client
// does, and only then gives the release out. One that is there already with the same content is read back and given out
// again. When this fails, the mirror is as it was, unless the text says more.
void publish(const Options& options, Run& run);

// Gives out the current release of the mirror at options.upstream, verified as a client does; INI and archive are
// copied to the byte. Prints one line, also when it leaves the release alone, and changes nothing then. Refuses also
// names that are not plain, ids and archive names with other content here, and damaged files of what is current here.
void mirror(const Options& options, Run& run);

// Makes the release options.id current again after checking it as a client does, and holds the one that was current.
void activate(const Options& options, Run& run);

// Shows the rollout of options.flavor; or does options.action: gives its candidate, after checking it, to more gateways
// or to all, or withdraws and holds it. Refuses to go back to a lower stage.
void rollout(const Options& options, Run& run);

// Restores what is damaged from options.upstream. Where that is empty or has nothing to choose, makes the release
// current that was so before, with options.yes only. Prints a line for each thing found and done. Moves what it
// replaces below replaced_directory_name. What it has restored stays when it fails later.
void repair(const Options& options, Run& run);

// Not served, because its name begins with a dot, and never pruned.
inline constexpr const char* replaced_directory_name = ".zqu-mirror.replaced";

// Removes releases of options.flavor by number (options.keep) and age (options.older_than_s), and what killed runs have
// left; with options.dry_run only says so, and why it keeps the others. Never removes what is current or a candidate of
// any flavor, even since this run began, except between the last check of that and the removal; nor what is in
// its grace; nor an archive that another INI names, or that is not ours. Removes nothing when an INI cannot be
// understood. A release's INI goes first, then its archive; a signal takes effect between two releases.
void prune(const Options& options, Run& run);

// Prints the releases of options.flavor in options.form, text or JSON, also of a damaged mirror. Returns the exit
// status, which says whether there is a problem. Takes no lock and changes nothing.
[[nodiscard]] int list(const Options& options, Run& run);

// Downloads the archive of the current release, and of a candidate when the mirror is a directory, checks it
// (inspect.hpp), and prints one line for each step: "ok", "warning" (clients succeed) or "FAULT" (clients fail, or
// cannot read the index that is there), which ends the check of that release except for its entries. Or prints
// options.form at the end. Returns the exit status. Throws when this machine is at fault; Form::prometheus prints that.
[[nodiscard]] int check(const Options& options, Run& run);

// Begins the line of check with Form::nagios.
inline constexpr const char* nagios_service = "MIRROR";

}  // namespace zqu::mirror_tool
