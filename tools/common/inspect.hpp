// Reads a release's archive as clients do.
//
// The archive may be hostile, and libarchive reads it: this happens in a process of its own that can do no harm. That
// process has none of root's privileges, and a user id and a session of its own. It has no descriptors except those
// that it needs, the one for its report, and /dev/null. It gets 256 MiB of memory, without the files that it maps, and
// ten minutes of CPU time, and ends with the thread that waits for it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace zqu::tools {

// The files inside an archive: the index of the digests, and the two definition files.
[[nodiscard]] std::string index_name(const std::string& flavor);
[[nodiscard]] std::string antivir_name(const std::string& flavor);
[[nodiscard]] std::string aivsecon_name(const std::string& flavor);

struct Remark {
    std::string verdict;  // "ok", "warning" or "FAULT"
    std::string text;     // of a process that a hostile archive may have taken over: may hold any bytes
};

struct Inspection {
    std::vector<Remark> remarks;
    std::map<std::string, std::string> digests;     // SHA-256 of the definition files that clients can read, by name
    std::map<std::string, std::uintmax_t> sizes{};  // of these and of the index, in bytes
};

// Where to write the index and the definition files: from an offset in a file, at most so many bytes, by name.
struct Destination {
    int file;
    std::map<std::string, std::pair<std::uintmax_t, std::uintmax_t>> places;
};

// Does work in such a process, which has these descriptors. Returns what work returned. Throws std::system_error when
// there is no process to be had, and ChildResult::require(does).
std::string in_confinement(const std::set<int>& descriptors, const std::function<std::string()>& work,
                           const std::string& does);

// How many bytes of the archive have been read so far. May be called from any thread, and at any time.
using Position = std::function<std::uintmax_t()>;

// Reads the archive, called name on the mirror, and judges it for a daemon without any privileges. A FAULT means that
// clients fail, or cannot read the index that is there. As in the daemon:
// - entries are known by the last component of their names, and the last one of a name counts;
// - an entry that has the archive's own name is removed with the archive;
// - the first header that libarchive does not read without complaint ends the archive.
// Refused also are an index and files larger than client.hpp allows, entries that are together larger than three such
// files, a fatal error of libarchive behind the definition files, and what needs more memory than a gateway gives.
// Calls watch() before it begins. With a destination, writes there what has a place, as far as it goes.
//
// Throws when this machine is at fault: the archive cannot be opened or read, no process can be made, or that process
// could not give up root's privileges, was killed, or sent a report that cannot be understood.
[[nodiscard]] Inspection inspect(
    const std::filesystem::path& archive, const std::string& name, const std::string& flavor,
    const std::function<void(const Position&)>& watch = [](const Position&) {}, const Destination* to = nullptr);

// The same in this process, which the archive may harm. It begins at the offset of fd.
[[nodiscard]] Inspection judge(int fd, const std::string& name, const std::string& flavor,
                               const Destination* to = nullptr);

// The text of the first FAULT; empty when there is none.
[[nodiscard]] std::string first_fault(const Inspection& inspection);

}  // namespace zqu::tools
