// The right to change a mirror's folder: one run at a time has it.
#pragma once

#include <filesystem>

#include "files.hpp"

namespace zqu::mirror_tool {

// Holds the lock (flock(2), which leaves nothing behind) as long as it lives; the kernel gives it up when the process
// ends, however that happens.
class Lock {
public:
    // Locks folder, which must exist, without waiting. Throws std::runtime_error when another run holds the lock, and
    // std::system_error when the folder cannot be opened or locked.
    explicit Lock(const std::filesystem::path& folder);

private:
    Fd folder_;
};

}  // namespace zqu::mirror_tool
