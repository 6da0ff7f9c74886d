// Whole files: writing, flushing, moving.
//
// Stateless. What fails throws std::system_error with the path and the reason, unless a function says more;
// what it had begun stays as it is. All may be called from any thread.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "descriptors.hpp"
#include "digest.hpp"

namespace zqu::mirror_tool {

using tools::Fd;
using tools::read_blocks;
using tools::sha256;

// Makes the file, which must not exist, with text as its content, and flushes it to disk (not its name: flush the
// directory for that).
void write_text(const std::filesystem::path& path, const std::string& text);

// Flushes what was written to a file, or the names in a directory, to disk (fsync(2)).
void flush(const std::filesystem::path& path);

// Makes one directory, whose parent must exist, with these permissions less the umask.
void make_folder(const std::filesystem::path& path, mode_t mode);

// Removes path with all that it holds, also directories that their owner may not enter; says in error why it could not.
void remove_tree(const std::filesystem::path& path, std::error_code& error);

// The right to change a mirror's directory, which must exist: flock(2), which the kernel ends with the process. Does
// not wait: throws std::runtime_error when another run has it.
class Lock {
public:
    explicit Lock(const std::filesystem::path& directory);

private:
    Fd directory_;
};

// rename(2): to appears, or is replaced, in one step.
void move(const std::filesystem::path& from, const std::filesystem::path& to);

}  // namespace zqu::mirror_tool
