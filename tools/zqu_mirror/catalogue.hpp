// What a mirror's folder holds, read as the daemon does: which releases there are, which of them are
// current, and which archives nothing names.
//
// Functions without a state of their own, for one thread. Nothing here writes. Everything throws std::runtime_error
// with the file and the reason when one of the INI files is no regular file, cannot be understood, or holds a name that
// may lead to another file than the one of that name, or an archive's that may not be one (names.hpp): who removes
// files on the strength of this must not guess.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "options.hpp"

namespace zqu::mirror_tool {

// A complete-info INI and what it names.
struct Release {
    std::string info;         // file name of the INI
    std::string flavor;       // of the flavors that the name may begin with, the longest that has a hit INI; else ""
    std::string id;           // what follows the flavor in the name; empty without one
    std::string archive;      // file name of the archive, which may be missing
    std::int64_t seen_ns{0};  // modification time of the INI: when it was published or last ceased to be current
};

// What clients are told to take now.
struct Current {
    std::map<std::string, std::string> infos;  // by flavor, the file name of the complete-info INI
    std::set<std::string> archives;            // the archives that these name
};

struct Catalogue {
    Current current;
    std::vector<Release> releases;     // of all flavors, sorted by the name of the INI
    std::vector<std::string> orphans;  // *.cab and *.zip that no INI names, sorted
};

// Reads all hit INIs ("antivir-<flavor>-hit.ini") of the folder that options name, and the complete-info INIs that they
// name.
[[nodiscard]] Current read_current(const Options& options);

// Reads everything. A release with the id "hit" has an INI that could be a hit INI by its name: its content decides.
[[nodiscard]] Catalogue read_catalogue(const Options& options);

// The file name of a complete-info INI of any flavor that names this archive; empty when there is none.
[[nodiscard]] std::string info_that_names(const Options& options, const std::string& archive);

// When the file's content was written, as whoever wrote it may have set it, or when anything about it was changed,
// which nobody can set (inode(7)); in nanoseconds since the Unix epoch. Throw std::system_error when it cannot be told.
[[nodiscard]] std::int64_t modified_ns(const std::filesystem::path& path);
[[nodiscard]] std::int64_t changed_ns(const std::filesystem::path& path);

}  // namespace zqu::mirror_tool
