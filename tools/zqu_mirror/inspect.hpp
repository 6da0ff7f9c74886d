// Looks at a release's archive in a process of its own, which a hostile archive may take over and find nothing there.
//
// That process has none of root's privileges, no descriptor but the archive's and the one that it reports to, and
// writes no file. It ends with the thread that waits for it.
#pragma once

#include <filesystem>
#include <string>

#include "judge.hpp"

namespace zqu::mirror_tool {

// What judge() makes of the archive, called name on the mirror. Throws std::system_error when the archive cannot be
// opened or there is no process to be had, and std::runtime_error with the reason when that process has reached no
// verdict: it cannot give up root's privileges, was killed, or reports what judge() does not.
[[nodiscard]] Inspection inspect(const std::filesystem::path& archive, const std::string& name,
                                 const std::string& flavor);

// The text of the first FAULT; empty when there is none.
[[nodiscard]] std::string first_fault(const Inspection& inspection);

}  // namespace zqu::mirror_tool
