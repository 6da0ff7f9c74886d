// The releases that are held: `mirror` does not take them again. `activate` holds the release that it replaces.
//
// The record is a directory beside the releases with an empty file for each held release, which has the name of its
// complete-info INI. So one system call holds or releases, and there is nothing to parse. Web servers do not serve it:
// its name begins with a dot. `prune` removes a held release like any other, and never the record: the hold is about
// what `mirror` and `repair` choose. It ends when the release becomes current by `publish`, `activate` or
// `mirror --force`.
#pragma once

#include <set>
#include <string>

#include "options.hpp"
#include "run.hpp"

namespace zqu::mirror_tool {

// The record's name in the mirror's directory.
inline constexpr const char* held_directory_name = ".zqu-mirror.held";

// The held ids of options.flavor; none without a record. Throws std::runtime_error, with what to do, when something
// other than a directory is in its place, and std::system_error when it cannot be read. Takes no lock.
[[nodiscard]] std::set<std::string> held_ids(const Options& options);

// Holds the release id, on disk when this returns, and undone with the run. For who has the mirror's lock.
void hold(const Options& options, const std::string& id, Run& run);

// Ends the hold of the release id, if there is one. For who has the mirror's lock.
void end_hold(const Options& options, const std::string& id);

}  // namespace zqu::mirror_tool
