// Whole files: reading, writing, flushing, moving, digests.
//
// Stateless. What fails throws std::system_error with the path and the reason, unless a function says more;
// what it had begun stays as it is. All may be called from any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "descriptors.hpp"

namespace zqu::mirror_tool {

using tools::Fd;

// Reads the file from its start to its end and gives each piece to consume; the last piece is empty. The memory used
// does not depend on the file's size. What consume throws passes through.
void read_blocks(const std::filesystem::path& path, const std::function<void(const char*, std::size_t)>& consume);

// Computes one SHA-256 (FIPS 180-4). Throws std::runtime_error when libcrypto cannot.
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void add(const char* data, std::size_t size);
    [[nodiscard]] std::string hex();  // of all that was added, in lower case; ends the computation

private:
    struct Context;
    std::unique_ptr<Context> context_;
};

// The SHA-256 of the file in lower-case hexadecimal. Calls progress with the number of bytes that each step has read.
// Throws what Sha256 throws, too.
[[nodiscard]] std::string sha256(const std::filesystem::path& path, const std::function<void(std::size_t)>& progress);

// Makes the file, which must not exist, with text as its content, and flushes it to disk (not its name: flush the
// folder for that).
void write_text(const std::filesystem::path& path, const std::string& text);

// Flushes what was written to a file, or the names in a folder, to disk (fsync(2)).
void flush(const std::filesystem::path& path);

// Makes one folder, whose parent must exist, with these permissions less the umask.
void make_folder(const std::filesystem::path& path, mode_t mode);

// Removes path with all that it holds, also directories that their owner may not enter; says in error why it could not.
void remove_tree(const std::filesystem::path& path, std::error_code& error);

// rename(2): to appears, or is replaced, in one step.
void move(const std::filesystem::path& from, const std::filesystem::path& to);

}  // namespace zqu::mirror_tool
