// Judges a release's archive in a process of its own. A hostile archive that takes this process over gains nothing.
//
// The process has none of root's privileges and a user id and a session of its own. It writes no file, and has no
// descriptors but the archive's, the one that it reports to, and /dev/null. It gets 256 MiB of memory and ten minutes
// of CPU time, and ends with the thread that waits for it.
#pragma once

#include <filesystem>
#include <string>

#include "judge.hpp"

namespace zqu::mirror_tool {

// What judge() makes of the archive, called name on the mirror. Throws std::system_error when the archive cannot be
// opened or no process can be made, and std::runtime_error with the reason when that process has reached no verdict: it
// could not give up root's privileges, was killed, or sent a report that judge() cannot have made.
[[nodiscard]] Inspection inspect(const std::filesystem::path& archive, const std::string& name,
                                 const std::string& flavor);

// The text of the first FAULT; empty when there is none.
[[nodiscard]] std::string first_fault(const Inspection& inspection);

}  // namespace zqu::mirror_tool
