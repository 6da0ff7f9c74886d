// What commands do in a mirror's directory: examine releases, hold them, and put files into place.
//
// For the thread that works with the run. What fails throws std::system_error, unless a function says more.
#pragma once

#include <filesystem>
#include <optional>
#include <set>
#include <string>

#include "files.hpp"
#include "inspect.hpp"
#include "mirror_client.hpp"
#include "options.hpp"
#include "run.hpp"

namespace zqu::mirror_tool {

// The work directory's name in the mirror's directory.
inline constexpr const char* work_directory_name = ".zqu-mirror.work";

// Whether there is a directory at path. Throws std::runtime_error "<path><otherwise>" for anything else: what others
// have put there is neither followed nor replaced.
[[nodiscard]] bool has_directory(const std::filesystem::path& path, const std::string& otherwise);

// Whether the mirror's directory has a work directory: that of the run that has the lock, or of a killed one. Throws
// std::runtime_error, with what to do, when something else has its name.
[[nodiscard]] bool has_work_directory(const std::filesystem::path& directory);

// The release that a file of options' mirror, a directory, names as a hit INI does; none when there is no such file, it
// cannot be understood, or the id cannot be one. And the one that the hit INI names.
[[nodiscard]] std::optional<std::string> named_id(const Options& options, const std::string& file);
[[nodiscard]] std::optional<std::string> current_id(const Options& options);

// The content of a hit INI, or of a stage file (rollout.hpp), that names this release.
[[nodiscard]] std::string hit_text(const std::string& id);

// The lines of a complete-info INI that the daemon looks for.
[[nodiscard]] std::string info_text(const std::string& id, const std::string& archive, const std::string& sha256,
                                    std::uintmax_t size);

// The directory of options' mirror. Throws std::runtime_error when there is none.
[[nodiscard]] std::filesystem::path existing_directory(const Options& options);

// How much of a release is examined; each includes the ones before. Where the INI gives another size than the archive
// has, or none, the digest decides.
enum class Depth { size, digest, entries };

// What examine() has found.
struct Examined {
    std::string fault;         // why clients would not take the release; empty when they would
    zqu::CompleteInfo info{};  // what its INI says; its names are plain when it has been understood
};

// Examines the files that the mirror, a directory, has of the release id. Throws what inspect() throws.
[[nodiscard]] Examined examine(const Options& options, const std::string& id, Depth depth, Run& run);

// inspect(), and the SHA-256 of a file, with the progress of the run's phase.
[[nodiscard]] tools::Inspection inspect_in(Run& run, const std::string& phase, const std::filesystem::path& archive,
                                           const std::string& name, const std::string& flavor);
[[nodiscard]] std::string sha256_in(Run& run, const std::filesystem::path& path);

// Whether there is a regular file at archive with this SHA-256, in hexadecimal digits of any case. Throws when it
// cannot be read: that is no verdict.
[[nodiscard]] bool has_digest(const std::filesystem::path& archive, std::string digest, Run& run);

// The content of the file at path; empty when there is none, or it is not a regular one or longer than an INI may be.
[[nodiscard]] std::string text_of(const std::filesystem::path& path);

// The complete-info INI of the release id as an upstream mirror gave it; else the mirror's own.
[[nodiscard]] std::string upstream_text(const Options& options, const std::string& id);

// "<what>: <archive>, <n> bytes, SHA-256 <digest>", for a release whose archive is in the directory.
[[nodiscard]] std::string summary(const std::filesystem::path& directory, const std::string& what,
                                  const zqu::CompleteInfo& info);

// Ends the phase, and says line unless options.quiet.
void report(const Options& options, const std::string& line, Run& run);

// The releases that are held: `mirror` and `repair` do not choose them. `activate` holds the release that it replaces;
// the hold ends when that becomes current again. prune removes it like any other.
//
// The record is a directory beside the releases with an empty file for each, which has the name of its complete-info
// INI: one system call holds or releases, and there is nothing to parse. It is not served: its name begins with a dot.
inline constexpr const char* held_directory_name = ".zqu-mirror.held";

// The held ids of options.flavor; none without a record. A killed activate may have left the current one there.
// Throws std::runtime_error, with what to do, when something other than a directory is in its place. Takes no lock.
[[nodiscard]] std::set<std::string> held_ids(const Options& options);

// Holds the release id, on disk when this returns, and undone with the run; or ends its hold, if there is one. The
// caller must have the mirror's lock.
void hold(const Options& options, const std::string& id, Run& run);
void end_hold(const Options& options, const std::string& id);

// Write access to a mirror's directory, for one run at a time: files are written in a work directory inside it, and
// moved from there to their names.
//
// A release becomes current by one rename(2), that of the hit INI. What is moved before that is undone with the run. A
// run that is killed leaves its work directory, which the next one removes, and perhaps files that nothing names.
class Workplace {
public:
    // Makes directory, an absolute path, with the parents that are missing (on disk then, and undone with the run),
    // locks it, removes what a killed run has left, and makes the work directory. run must outlive the workplace.
    // Throws what Lock throws, too.
    Workplace(const std::filesystem::path& directory, Run& run);

    // Undoes what was not committed, and only then unlocks: the next run must not find files that are about to go.
    ~Workplace() { run_.clean_up(); }

    Workplace(const Workplace&) = delete;
    Workplace& operator=(const Workplace&) = delete;

    // Whether there was a work directory that a killed run had left.
    [[nodiscard]] bool removed_leftover() const { return removed_leftover_; }

    // The mirror's directory, and the path of what the work directory holds.
    [[nodiscard]] const std::filesystem::path& directory() const { return directory_; }
    [[nodiscard]] std::filesystem::path work(const std::string& name) const { return work_ / name; }

    // Moves a file from the work directory to its name in the mirror's directory, replacing what has that name. Undone
    // with the run. The file must have been flushed before; its name is on disk after flush(directory()).
    void add(const std::string& work_name, const std::string& name);

    // Makes the release current whose files are all in place and on disk, and commits the run by that. Ends the hold of
    // the release and its rollout, and, unless holds_former, the hold of the former one, whose INI gets the time of the
    // new hit INI for prune, as far as possible. When this throws std::system_error, the mirror is as it was;
    // std::runtime_error: the release is current, but not all is on disk or done.
    void make_current(const Options& options, const std::string& id, bool holds_former = false);

private:
    std::filesystem::path directory_;
    Lock lock_;
    const std::filesystem::path work_;
    Run& run_;
    bool removed_leftover_ = false;
};

}  // namespace zqu::mirror_tool
