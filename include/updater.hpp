// The driver: one update cycle, and the loop that repeats it.
//
// Owns its copy of the settings and the two components that use it. All state that outlives a cycle is on disk. A cycle
// that is killed at any point leaves the snapshot in service unchanged, and at most a staging directory: the next cycle
// for that version fills it again, or pruning removes it. One thread; only the stop flag is shared with a signal
// handler.
#pragma once

#include <csignal>

#include "config.hpp"
#include "mirror_client.hpp"
#include "snapshot_store.hpp"

namespace zqu {

class Updater {
public:
    // Copies cfg, then builds the mirror client and the snapshot store on that copy; cfg need not outlive the call.
    // Creates the directories of the store (SnapshotStore's constructor) and libcurl's handle.
    explicit Updater(const Config& cfg);

    // Destroys the store, then the mirror client, which releases its handle.
    ~Updater() = default;

    // Both components refer to the copy inside, so an Updater can be neither copied nor moved.
    Updater(const Updater&) = delete;
    Updater& operator=(const Updater&) = delete;

    // One check. When the mirror names another definition id than the one in service, downloads that release into
    // "<def_root>/snapshots/<id>", verifies and unpacks the archive, verifies the two definition files, removes all
    // others, puts the snapshot into service and prunes. Returns true only when a snapshot was published, and logs
    // "def snapshot updated: %s -> %s" (LOG_INFO) with the former version or "none", and the new one.
    //
    // Returns false when the version in service is current (nothing is logged) and on every failure. Writes the status
    // file in all these cases. Its last_error, and what is logged besides the components' own lines:
    // - "defId fetch failed", "complete-info fetch failed for <id>": nothing more, and nothing was staged;
    // - "download CAB", "CAB sha256 mismatch", "CAB extract", "CAB missing <file>", "sha256 mismatch <file>":
    //   "run_once: staging failed: %s" (LOG_ERR), and the staging directory is gone;
    // - "publish/flip failed": nothing more; the staging directory stays.
    //
    // Throws what the standard library throws: std::filesystem::filesystem_error when a definition file's status cannot
    // be read or a listing breaks off, and allocation failures. Then no status is written and the staging directory
    // stays. The stop flag does not interrupt it.
    bool run_once();

    // Runs cycles until stop is nonzero. Reads stop before the first cycle, before each second of the wait and after
    // it. Waits poll_interval_s seconds, plus a remainder below poll_jitter_s from process id and time. When a cycle
    // ends in a std::exception, logs "run_once exception: %s" (LOG_ERR) and shortens the wait: the second exception in
    // a row halves it, the third quarters it, from the fourth on it is an eighth. Other exceptions pass through. Logs
    // "zel_quorin_updater loop started (interval=%us jitter=%us)" and "zel_quorin_updater loop stopped" (LOG_INFO).
    void run_loop(volatile std::sig_atomic_t& stop);

private:
    Config cfg_;
    MirrorClient mirror_;
    SnapshotStore store_;
};

}  // namespace zqu
