// The commands. options.mirror is an absolute directory, or a URL where a command takes one. A command throws with the
// reason as text when it fails.
#pragma once

#include "options.hpp"
#include "run.hpp"

namespace zqu::mirror_tool {

// Packs the two definition files, puts the archive and its INI into the mirror's directory, reads them back as a client
// does, and only then makes the release current in one step. A release that is there already with the same content is
// read back and made current again. When anything fails, the run leaves the mirror as it was, except in one case that
// the text names: the release is current, and only the last flush has failed.
void publish(const Options& options, Run& run);

// Asks the mirror at options.upstream for its current release. When that is not current here, downloads it, verifies it
// as a client does, and makes it current. The complete-info INI and the archive keep their names and their bytes.
// Prints one line, also when there is nothing new or the release is held, and changes nothing then.
//
// Refuses what does not verify, an id or an archive name that is no plain file name, an id that is known here with
// another archive, an archive whose name belongs to other content here, and damaged files of what is current here.
void mirror(const Options& options, Run& run);

// Makes the release options.id, which is on the mirror, current again after checking it, and holds the one that was
// current. Refuses one that a client would not take.
void activate(const Options& options, Run& run);

// Shows the rollout of options.flavor; or does options.action: gives its candidate, after checking it, to more gateways
// or to all, or withdraws and holds it. Refuses to go back to a lower stage.
void rollout(const Options& options, Run& run);

// Finds what is damaged, and restores it from options.upstream. Where that is empty or has nothing to choose, makes
// the release current that was so before, with options.yes only. Prints a line for each thing found and done. Moves
// what it replaces to a directory of its own below replaced_directory_name. What it has restored stays when it fails
// later.
void repair(const Options& options, Run& run);

// Where repair keeps what it has replaced. Not served, because its name begins with a dot, and never pruned.
inline constexpr const char* replaced_directory_name = ".zqu-mirror.replaced";

// Removes releases of options.flavor by number (options.keep) and age (options.older_than_s), and what killed runs have
// left; with options.dry_run only says so, and why it keeps the others.
//
// Never removes what a hit INI or a stage file of any flavor names, even when it is changed while the run goes on,
// except in the instant between the last look and the removal; nor what is in its grace; nor an archive that another
// INI names, or that is not ours. Removes nothing when an INI cannot be understood. A release's INI goes first, then
// its archive; a signal takes effect between two releases.
void prune(const Options& options, Run& run);

// Prints the releases of options.flavor in options.form, text or JSON. Lists a damaged mirror, too; the exit status
// that it returns says whether there is a problem. Takes no lock and changes nothing.
[[nodiscard]] int list(const Options& options, Run& run);

// Downloads the archive of the current release, and of a candidate when the mirror is a directory, below $TMPDIR or
// /tmp, checks it (inspect.hpp), and prints one line for each step: "ok", "warning" (clients succeed) or "FAULT"
// (clients fail, or cannot read the index that is there). A FAULT ends the check, except those of the archive's
// entries, which are all printed. Or prints options.form at the end. Returns the exit status. Throws when this machine
// is at fault; Form::prometheus prints that instead.
[[nodiscard]] int check(const Options& options, Run& run);

// Begins the line of check with Form::nagios.
inline constexpr const char* nagios_service = "MIRROR";

}  // namespace zqu::mirror_tool
