// Whole files, and how zqu-mirror speaks.
//
// Stateless; safe from any thread. A failure is an exception whose text is the reason: std::system_error with the path,
// unless a function says more. What a function had begun stays as it is then.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "descriptors.hpp"
#include "program.hpp"

namespace zqu::mirror_tool {

using tools::complain;
using tools::Fd;

// Throws std::runtime_error: fail() always, refuse() unless there is no fault.
[[noreturn]] void fail(const std::string& text);
void refuse(const std::string& what, const std::string& fault);
using tools::fail_errno;

// Prints text, as text.hpp makes it printable, and a line end.
void say(const std::string& text);

// Makes the file, which must not exist, with text as its content, and flushes it to disk, but not its name.
void write_text(const std::filesystem::path& path, const std::string& text);

// Flushes what was written to a file, or the names in a directory, to disk (fsync(2)).
void flush(const std::filesystem::path& path);

// Makes one directory, whose parent must exist, with these permissions less the umask.
void make_directory(const std::filesystem::path& path, mode_t mode);

// Removes path with all that it holds, also directories that their owner may not enter; says in error why it could not.
void remove_tree(const std::filesystem::path& path, std::error_code& error);

// When root runs it, becomes for good the first owner other than root of a directory on the way to path. Otherwise that
// user could lead root elsewhere by links, and would not own what root has made.
void become_owner(const std::filesystem::path& path);

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
