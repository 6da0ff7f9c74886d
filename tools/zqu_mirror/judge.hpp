// What clients make of a release's archive. Reads its entries as the daemon unpacks them, and writes nothing.
//
// The archive may be hostile, and libarchive reads it: inspect.hpp runs this in a process that can do no harm.
// A function without state, for one thread.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace zqu::mirror_tool {

struct Remark {
    std::string verdict;  // "ok", "warning" or "FAULT"
    std::string text;     // may hold any bytes that are in the archive, but no zero
};

struct Inspection {
    std::vector<Remark> remarks;
    std::map<std::string, std::string> digests;  // SHA-256 of the definition files that clients can read, by name
};

// Reads the archive, which begins at the offset of fd, and judges it for a daemon without any privileges. name is the
// archive's on the mirror. A FAULT means that clients fail, or cannot read the index that is there. As in the daemon:
// - entries are known by the last component of their names, and the last one of a name counts;
// - an entry that has the archive's own name is removed with the archive;
// - the first header that libarchive does not read without complaint ends the archive.
// Refused also are an index and files larger than client.hpp allows, entries that are together larger than
// three such files, a fatal error of libarchive behind the definition files, and what needs more memory than there is.
//
// Throws std::runtime_error when libcrypto cannot compute a digest.
[[nodiscard]] Inspection judge(int fd, const std::string& name, const std::string& flavor);

}  // namespace zqu::mirror_tool
