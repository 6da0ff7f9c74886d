// The definitions on disk: one directory per version below "<def_root>/snapshots", the symbolic link
// "<def_root>/active" that names the one in service, and the status file.
//
// The link is only ever replaced whole, by rename(2): a reader that resolves it sees the old snapshot or the new one,
// never none, and so does whoever looks after a crash. What a crash can leave is "<def_root>/active.tmp", which the
// next publication removes, and a short status file, which the next check rewrites. Keeps no state in memory. One
// thread, and no other writer below def_root; readers need no lock.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "config.hpp"

namespace zqu {

class SnapshotStore {
public:
    // What the status file tells. Times are time(2) seconds since the Unix epoch.
    struct Status {
        std::string active_version;           // version of the snapshot in service
        std::string engine_version;           // engine version that the definitions are kept for
        std::string antivir_def_version;      // version of the antivir definition set
        std::string aivsecon_def_version;     // version of the aivsecon definition set
        std::int64_t last_check_epoch = 0;    // when the last check began
        std::int64_t last_success_epoch = 0;  // the same when that check succeeded, else 0
        std::string last_error;               // what went wrong in it; empty: nothing
    };

    // Keeps a reference to cfg, which must outlive the store, and creates "<def_root>/snapshots" and the status file's
    // directory with all missing parents. Failures are ignored here; they show when something is written there.
    explicit SnapshotStore(const Config& cfg);

    // Returns the path of the snapshot directory of version, having created it with its parents when missing. What it
    // holds already is kept. A failure to create it is ignored and not logged. The version is not screened: one that
    // holds "/" or ".." leads elsewhere.
    [[nodiscard]] std::string stage_dir(const std::string& version) const;

    // The version in service: the last component of the target of "<def_root>/active" (readlink(2)), whether that
    // target exists or not; empty text when the target ends in "/". No value when the link cannot be read for whatever
    // reason. Logs nothing.
    [[nodiscard]] std::optional<std::string> active_version() const;

    // Puts version into service: makes the link "active.tmp" with the relative target "snapshots/<version>", renames
    // it over "active", and flushes def_root to disk. Neither looks whether the snapshot exists nor whether it is in
    // service already. Returns true and logs "published def snapshot %s" (LOG_INFO); a failed flush is ignored.
    // Failures, both false with the link in service untouched:
    // - symlink(2) fails: "publish: symlink %s failed" (LOG_ERR) with the temporary link's path; nothing is cleaned up;
    // - rename(2) fails: "publish: rename to active failed" (LOG_ERR); the temporary link is removed.
    [[nodiscard]] bool publish(const std::string& version);

    // Removes the oldest snapshots, by modification time, until retained_snapshots directories remain; the one in
    // service is never removed and counts among them. Protection goes by the name that "active" gives, nothing else.
    // Directories of any name count, links to directories too (only the link is removed then); other files are left
    // alone. The number to remove is the difference modulo 2^32 read as signed: a retained_snapshots that exceeds the
    // number of snapshots by more than 2^31 removes as if it were small. A removal that fails is ignored but counts.
    // An unreadable "<def_root>/snapshots" is taken as empty. Throws std::filesystem::filesystem_error, with nothing
    // removed yet, when an entry's type cannot be told or the listing breaks off. Logs nothing.
    void prune();

    // Writes s as ten lines of JSON to status_path, in place: not atomic, not flushed, readers must bear a short file.
    // Only tab, line feed, carriage return, double quote and backslash are escaped; other control characters in a value
    // make the file invalid JSON. Failures to open or write are ignored and not logged. Creates no directory.
    void write_status(const Status& s) const;

private:
    [[nodiscard]] std::string active_link() const;
    [[nodiscard]] std::string snapshots_root() const;

    const Config& cfg_;
};

}  // namespace zqu
