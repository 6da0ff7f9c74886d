// What a mirror's directory holds, read as the daemon does: the releases, which of them are current, which clients may
// still ask for, and the archives that no release has.
//
// Stateless functions, for one thread. They write nothing and wait for nothing: an INI is a regular
// file of at most 1 MiB. They throw std::system_error when the directory cannot be read.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "options.hpp"

namespace zqu::mirror_tool {

// Times of a file, in nanoseconds since the Unix epoch.
struct Times {
    std::int64_t modified_ns = 0;  // its mtime
    std::int64_t changed_ns = 0;   // the later of mtime and ctime, which no program can set (inode(7))
};

// A complete-info INI and what it names.
struct Release {
    std::string info;                       // file name of the INI
    std::string flavor;                     // the longest known flavor that the name may begin with; else ""
    std::string id;                         // what follows the flavor in the name; empty without one
    std::string archive;                    // its file name, there or not; empty when the INI cannot be understood
    std::int64_t size = 0;                  // of the archive, as the INI says; 0 when it says nothing
    std::vector<std::string> companions{};  // file names of its deltas, and of the upstream mirror's INI
    bool current = false;                   // a hit INI names it, of any flavor
    bool candidate = false;                 // stage files name it (rollout.hpp), of any flavor
    Times times;                // of the INI: when the release was published or stopped being current or candidate
    std::int64_t grace_ns = 0;  // when the grace ends, set by newest_first()
};

// The releases that the mirror gives to clients now.
struct Current {
    std::map<std::string, std::string> ids;         // by flavor
    std::map<std::string, std::string> candidates;  // by flavor
    std::set<std::string> archives;                 // the file names of the archives of both
};

struct Catalogue {
    Current current;
    std::vector<Release> releases;       // of all flavors, sorted by the name of the INI
    std::vector<std::string> orphans;    // archives that no INI names, with names that publish gives; and companions
    std::vector<std::string> strangers;  // other archives, by their suffix, that no INI names
    std::vector<std::string> leftovers;  // stage files that name what is current
    std::vector<std::string> problems;   // the file and the reason, for each INI that is missing, cannot be understood,
                                         // or holds a name that may lead to another file
};

// Reads all hit INIs ("antivir-<flavor>-hit.ini") and stage files, and the complete-info INIs that they name. Throws
// std::runtime_error with the first problem.
[[nodiscard]] Current read_current(const Options& options);

// Reads everything. A release with the id "hit" has an INI that could be a hit INI by its name: its content decides.
[[nodiscard]] Catalogue read_catalogue(const Options& options);

// Throws std::runtime_error with the first problem: nothing may be removed by a guess.
void require_understood(const Catalogue& catalogue);

// The releases of options.flavor with the ends of their graces, the current one first, then the newest. The grace of a
// former release lasts for options.grace_s from changed_ns: a copy may have kept the mtime. Workplace::make_current
// gives a release that stops being current the mtime of the new hit INI. Where that was not done, the newest one whose
// grace has ended may have been current until the hit INI was replaced.
[[nodiscard]] std::vector<Release> newest_first(const Catalogue& catalogue, const Options& options,
                                                std::int64_t now_ns);

// The file name of a complete-info INI of any flavor that names this archive; empty when there is none.
[[nodiscard]] std::string info_that_names(const Options& options, const std::string& archive);

// The archives without a release that a killed `mirror` has put into this directory under the names that its upstream
// gives them: those that INIs in the work directory describe, digest included.
[[nodiscard]] std::vector<std::string> archives_of_killed_run(const std::filesystem::path& directory);

// Throws std::system_error when lstat(2) fails.
[[nodiscard]] Times times_of(const std::filesystem::path& path);

[[nodiscard]] std::int64_t now_ns();

// Whether publish gives this name to an archive.
[[nodiscard]] bool is_ours(const std::string& archive);

}  // namespace zqu::mirror_tool
