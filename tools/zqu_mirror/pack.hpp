// Writes a release's archive: the digest index goes first, then the definition files.
//
// Stateless functions, for one thread. The archive is not flushed to disk. Whether the sources changed while they were
// read is for the caller to find out (require_unchanged). libgcab and libarchive stay inside one source each.
#pragma once

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "sources.hpp"

namespace zqu::mirror_tool {

// 65535 blocks of 32 KiB is all that one CAB folder holds. libgcab writes no second folder, and beyond this it writes
// an archive that cannot be read, without an error.
constexpr std::uintmax_t cab_capacity = std::uintmax_t{65535} * 32768;

// Either writes the archive at the path given, which is absolute, with the text index under the name index_name and the
// time index_time (seconds since the Unix epoch), and each source under its name with its own time. The same input
// gives the same bytes. Throws std::runtime_error, "cannot write the archive: " and the library's reason, when the
// archive cannot be written or, for a CAB, a source cannot be read; what is written by then stays. pack_zip throws
// std::system_error with the source's path when it cannot be read.

// An MSZIP-compressed CAB at a path where nothing may be yet. The index and the sources must fit into cab_capacity.
// Times are those of the local time zone, kept within the years that a CAB can tell.
void pack_cab(const std::filesystem::path& archive, const std::string& index, const std::string& index_name,
              const std::vector<Source>& sources, time_t index_time);

// A deflated ZIP, which has no such limit. Replaces what is at the path.
void pack_zip(const std::filesystem::path& path, const std::string& index, const std::string& index_name,
              const std::vector<Source>& sources, time_t index_time);

}  // namespace zqu::mirror_tool
