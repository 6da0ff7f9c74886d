// Writes a release's archive: the digest index goes first, then the definition files.
//
// Stateless functions, for one thread. The archive is not flushed to disk. The caller finds out whether the sources
// changed while they were read.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

namespace zqu::mirror_tool {

// A definition file to publish.
struct Source {
    std::filesystem::path path;  // absolute
    std::string name;            // inside the archive
    struct stat before = {};     // as it was before anything of it was read
    std::string digest;          // SHA-256 in lower-case hexadecimal; empty until it is computed
};

// 65535 blocks of 32 KiB is all that one CAB folder holds. libgcab writes no second folder, and beyond this it writes
// an archive that cannot be read, without an error.
constexpr std::uintmax_t cab_capacity = std::uintmax_t{65535} * 32768;

// All write the archive, a path that is absolute, with the text index under the name index_name and the time
// index_time (seconds since the Unix epoch), and each source under its name with its own time. The same input gives the
// same bytes. They throw std::runtime_error, "cannot write the archive: " and the reason; those for a ZIP throw
// std::system_error with the source's path when it cannot be read. What is written by then stays.
using Packer = void(const std::filesystem::path& archive, const std::string& index, const std::string& index_name,
                    const std::vector<Source>& sources, time_t index_time);

// An MSZIP-compressed CAB at a path where nothing may be yet. The index and the sources must fit into cab_capacity.
// Times are those of the local time zone, kept within the years that a CAB can hold.
Packer pack_cab;

// A deflated ZIP, which has no such limit. Replaces what is at the path.
Packer pack_zip;

// A stored ZIP in a Zstandard stream (RFC 8878), whose entries have the modes that a CAB's get. Replaces what is at the
// path. Reads the sources twice. Uses up to four of the processors that this process may use, and 90 MiB for each.
Packer pack_zstd;

// The result of a function of libzstd. Throws std::runtime_error when it is an error.
std::size_t require_zstd(std::size_t result);

}  // namespace zqu::mirror_tool
