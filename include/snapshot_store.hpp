// The definitions on disk: one directory per version below "<def_root>/snapshots", the symbolic link
// "<def_root>/active" that names the one in service, and the status file.
//
// The link is replaced by rename(2) only. A reader that resolves it finds the old snapshot or the new one, never none,
// also after a crash. A crash can leave "<def_root>/active.tmp", which the next publication removes, and a truncated
// status file, which the next check rewrites. Keeps no state in memory. One thread, and no other writer below def_root;
// readers need no lock.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "config.hpp"

namespace zqu {

class SnapshotStore {
public:
    // The content of the status file. Times are time(2) seconds since the Unix epoch.
    struct Status {
        std::string active_version;           // version of the snapshot in service
        std::string engine_version;           // version of the engine that uses the definitions
        std::string antivir_def_version;      // version of the antivir definition set
        std::string aivsecon_def_version;     // version of the aivsecon definition set
        std::int64_t last_check_epoch = 0;    // when the last check began
        std::int64_t last_success_epoch = 0;  // the same when that check succeeded, else 0
        std::string last_error;               // what went wrong in it; empty: nothing
    };

    // Keeps a reference to cfg, which must outlive the store. Creates "<def_root>/snapshots" and the status file's
    // directory with all missing parents. Ignores failures: they show when something is written there.
    explicit SnapshotStore(const Config& cfg);

    // Creates the snapshot directory of version with its parents when missing, and returns its path. Keeps what it
    // already holds. A failure to create it is ignored and not logged. The version is not checked: one with "/" or ".."
    // leads elsewhere.
    [[nodiscard]] std::string stage_dir(const std::string& version) const;

    // The version in service: the last component of the target of "<def_root>/active" (readlink(2)), whether that
    // target exists or not; empty text when the target ends in "/". No value when the link cannot be read, for any
    // reason. Logs nothing.
    [[nodiscard]] std::optional<std::string> active_version() const;

    // Puts version into service: makes the link "active.tmp" with the relative target "snapshots/<version>", renames
    // it over "active", and flushes def_root to disk. Does not check whether the snapshot exists, or is already in
    // service. Returns true and logs "published def snapshot %s" (LOG_INFO); a failed flush is ignored.
    // Failures, which both return false and leave "active" unchanged:
    // - symlink(2) fails: "publish: symlink %s failed" (LOG_ERR) with the temporary link's path; nothing is cleaned up;
    // - rename(2) fails: "publish: rename to active failed" (LOG_ERR); the temporary link is removed.
    [[nodiscard]] bool publish(const std::string& version);

    // Removes the oldest snapshots, by modification time, until retained_snapshots directories remain; the one in
    // service counts, and is never removed: only the name that "active" gives protects it. Directories of any name
    // count, and links to directories (only the link is then removed). Other files stay. The number to remove is the
    // difference modulo 2^32 read as signed: a retained_snapshots that exceeds the number of snapshots by more than
    // 2^31 removes as if it were small. A removal that fails is ignored but counts. An unreadable
    // "<def_root>/snapshots" counts as empty. Throws std::filesystem::filesystem_error, before it removes anything,
    // when an entry's type cannot be read or the listing breaks off. Logs nothing.
    void prune();

    // Writes s as ten lines of JSON to status_path, in place, neither atomically nor flushed: readers must accept a
    // truncated file. Escapes tab, line feed, carriage return, double quote and backslash only; other control
    // characters in a value make the file invalid JSON. Failures to open or write are ignored and not logged. Creates
    // no directory.
    void write_status(const Status& s) const;

private:
    [[nodiscard]] std::string active_link() const;
    [[nodiscard]] std::string snapshots_root() const;

    const Config& cfg_;
};

}  // namespace zqu
