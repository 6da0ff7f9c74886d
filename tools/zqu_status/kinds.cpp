#include <algorithm>
#include <string_view>

#include "report.hpp"

namespace zqu::status_tool {

using tools::Verdict;

namespace {

constexpr auto warning = Verdict::warning;
constexpr auto unknown = Verdict::unknown;
constexpr auto critical = Verdict::critical;

constexpr const char* permission =
    "Run zqu-status as a user who may: the daemon's, one of the readers' group, or root.";
constexpr const char* no_definitions =
    "Nothing can be scanned without definitions. Start the daemon, or find out why its checks fail.";
constexpr const char* without_link = "Without the link, the next check fetches the release again.";
constexpr const char* damaged =
    "The mirror serves it like this, the disk was full, or it was damaged here. Without the link active, the next "
    "check fetches the release again.";
constexpr const char* rewritten =
    "The next check rewrites it. If it stays, something else writes it, or the daemon is of another version.";
constexpr const char* clock_back = "The clock was put back: a daemon that hangs is not noticed before the next check.";

struct Advice {
    std::string_view error;  // the last_error, or its beginning when it ends with a blank
    const char* text;
};

constexpr std::array<Advice, 8> of_errors{{
    {"defId fetch failed",
     "The mirror's current id could not be fetched or read: the log has the reason in a line with GET or "
     "parse_hit_defid. Check network, name resolution, certificate and mirror_base_url; zqu-config check --online "
     "tries it."},
    {"complete-info fetch failed for ",
     "The mirror names this release, but its description could not be fetched or read: the log has the reason in a "
     "line with GET or parse_complete_info. Mostly the mirror's fault; zqu-config check --online looks at it."},
    {"download CAB",
     "The archive could not be downloaded or stored: the log has the reason in a line with download_cab. Check the "
     "room and the permissions below def_root, http_timeout_s and the mirror."},
    {"CAB sha256 mismatch",
     "The archive is not the one that the mirror describes: damaged on its way, replaced, or still being copied to the "
     "mirror; or def_root was full. Check the room below def_root. If there is room, a single failure "
     "does not matter. If it stays, repair the mirror."},
    {"CAB extract",
     "The archive could not be unpacked: it is damaged or holds what cannot be written, or def_root is full. Check the "
     "room below def_root, then the release on the mirror."},
    {"CAB missing ",
     "The archive lacks this definition file: wrong flavor in the configuration, or a wrong release on the mirror."},
    {"sha256 mismatch ",
     "This definition file is not the one that the archive's index describes: a wrong release on the mirror, or "
     "def_root was full. Check the room below def_root, then the release."},
    {"publish/flip failed",
     "The link active could not be replaced: the log has the reason in a line with publish. Check that def_root can be "
     "written and that neither active nor active.tmp there is a directory."},
}};

}  // namespace

const std::array<FindingKind, 44> kinds{{
    {"config_missing", warning, "the configuration %1 is missing: the daemon uses its defaults",
     "Write one, or name the right one with --config."},
    {"config_unreadable", unknown, "the configuration %1 cannot be read: %2", permission},
    {"config_malformed", critical, "the configuration %1 holds a malformed number",
     "The daemon does not start: poll_interval_s, poll_jitter_s, retained_snapshots and http_timeout_s have to "
     "begin with a number of at most 64 bits."},
    {"config_unusable", warning, "%1",
     "Set it in the configuration and restart the daemon: no check can succeed without it."},
    {"service_failed", critical, "%1 has failed: %2",
     "Read its log: journalctl -u and the name of the unit. After the repair, restart it. After ten failed starts that "
     "needs systemctl reset-failed first."},
    {"service_stopped", critical, "%1 is %2: the definitions get no updates",
     "Start it. If the daemon runs without a unit or in another one, use --unit."},
    {"service_disabled", warning, "%1 runs, but does not start at boot: it is %2", "Enable it."},
    {"service_unknown", unknown, "the state of %1 is not known: %2", "See that the system bus (dbus) runs."},
    {"drop_in_left", warning, "%1 may still write %2, which the configuration no longer names",
     "A drop-in of the unit has it in ReadWritePaths=. Remove it by systemctl edit, and restart the service."},
    {"active_missing", critical, "no definitions are in service: there is no %1", no_definitions},
    {"active_unreadable", unknown, "%1 cannot be looked at: %2", permission},
    {"active_no_link", critical, "%1 is no link", "The daemon replaces a file, but not a directory."},
    {"active_dangling", critical, "%1 leads nowhere: %2 is no directory", without_link},
    {"active_outside", critical, "%1 leads to %2, which is no snapshot", without_link},
    {"directory_kind", critical, "%1 %2", "When it is removed, the next start of the daemon makes the directory."},
    {"directory_owner", warning, "%1 %2", "A hostile mirror could change its mode."},
    {"directory_mode", warning, "%1 %2", "A hostile mirror could replace what root has put there."},
    {"writable_by_others", critical, "%1 can be written by %2",
     "Other programs could replace the definitions or the status."},
    {"definition_missing", critical, "%1 is missing from the snapshot in service",
     "The flavor in the configuration is another one, somebody else has changed the snapshot, or its disk is "
     "damaged. Without the link, the next check fetches the release again."},
    {"definition_unreadable", unknown, "%1 in the snapshot in service cannot be looked at", permission},
    {"definition_not_regular", critical, "%1 in the snapshot in service is no regular file",
     "Somebody else has changed the snapshot. Without the link, the next check fetches the release again."},
    {"definition_empty", critical, "%1 in the snapshot in service is empty", damaged},
    {"definition_zeroed", critical, "%1 in the snapshot in service begins and ends with zero bytes only", damaged},
    {"definition_closed", critical, "%1 in the snapshot in service cannot be read by %2",
     "The programs that scan with it fail, or go on with old definitions. The file's mode comes from the archive."},
    {"definition_changed", warning, "%1 in the snapshot in service was changed after it was put into service",
     "A copied or restored definitions root looks the same. zqu-status --verify compares it with the mirror's. In "
     "doubt remove the link active: the next check fetches the release again."},
    {"definition_differs", critical, "%1 in the snapshot in service differs from the mirror's file of that release",
     "Somebody has changed it, its disk is damaged, or the mirror has changed the release. Without the link, the "
     "next check fetches the release again."},
    {"release_gone", unknown, "the mirror no longer has the release %1 to compare with: it names %2",
     "Compare with another gateway, or after the next update."},
    {"not_compared", unknown, "the definitions could not be compared with the mirror's: %1",
     "zqu-config check --online tries the mirror."},
    {"certificate_ends", warning, "%1", "With an expired certificate no check succeeds."},
    {"insecure_redirect", warning, "%1", "The mirror has to name an https address."},
    {"definitions_old", critical, "the definitions came into service %1",
     "If the checks succeed, the mirror has had no new release since: look at the mirror."},
    {"publication_in_future", warning, "the publication is in the future, at %1",
     "The clock was put back: its age is not known before the next publication."},
    {"snapshots_unreadable", unknown, "%1 cannot be listed", permission},
    {"status_missing", critical, "the status file %1 is missing",
     "No check has ended yet, or the daemon cannot write there. Start it, and see that its user may write that "
     "directory."},
    {"status_unreadable", unknown, "the status file %1 cannot be read: %2", permission},
    {"status_not_regular", critical, "the status file %1 is no regular file",
     "The daemon cannot write its status there. Remove it, or correct status_path, and restart the daemon."},
    {"status_too_long", unknown, "the status file %1 is not looked at: %2",
     "The daemon writes that much only when the mirror gives such ids: look at the mirror."},
    {"status_unfinished", unknown, "the status file %1 is cut short: %2",
     "Its disk is full, or the daemon was killed while it wrote: make room. The next check rewrites it."},
    {"status_invalid", unknown, "the status file %1 is not valid: %2", rewritten},
    {"status_schema", unknown, "the status file %1 has another format: %2", rewritten},
    {"check_failed", warning, "the last check failed: %1", ""},
    {"check_late", critical, "the last check began %1",
     "The daemon is stopped, hangs in a transfer, fails before it can report (the log has run_once exception), or "
     "can no longer write its status file."},
    {"check_in_future", warning, "the last check is in the future, at %1", clock_back},
    {"version_differs", warning, "active leads to %1, but the last check left %2",
     "Somebody else has set the link, or the daemon was ended right after it set the link. The next check "
     "writes a new status."},
}};

const char* advice_for(const std::string& last_error) {
    const auto* const found = std::find_if(of_errors.begin(), of_errors.end(), [&last_error](const Advice& advice) {
        return advice.error.back() == ' ' ? last_error.compare(0, advice.error.size(), advice.error) == 0
                                          : last_error == advice.error;
    });
    return found != of_errors.end()
               ? found->text
               : "Not a text of this daemon: the status file comes from another version or another program.";
}

}  // namespace zqu::status_tool
