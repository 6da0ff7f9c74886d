#include "findings.hpp"

#include <algorithm>
#include <utility>

#include "advice.hpp"
#include "text.hpp"

namespace zqu::status_tool {

using namespace tools;

namespace {

using Findings = std::vector<Finding>;

constexpr std::int64_t disk_work = 300;           // of one check: digests, unpacking, flushing, pruning
constexpr std::int64_t assumed_transfer = 300;    // when nothing bounds it
constexpr std::int64_t old_definitions = 172800;  // two days
constexpr std::int64_t tolerance = 60;            // by which a clock may be put back unnoticed
constexpr std::int64_t settling = 60;             // from a publication to its status: flushing, pruning

constexpr const char* permission_advice =
    "Run zqu-status as a user who may: the daemon's, one of the readers' group, or root.";
constexpr const char* no_definitions_advice =
    "Nothing can be scanned with these definitions. Start the daemon, or see why its checks fail.";
constexpr const char* without_link_advice = "Without the link, the next check fetches the release again.";
constexpr const char* restart = "systemctl restart zel_quorin_updater";

// Each start of the packaged service repairs its directories; elsewhere the other command does.
std::string restart_or(const Facts& facts, const std::string& command) {
    return facts.layout.packaged ? restart : command;
}

std::string below_root(const Facts& facts, const std::string& name) {
    return facts.cfg.def_root + "/" + name;
}

bool in_the_way(const Place* place) {
    return place != nullptr && !S_ISDIR(place->found.st_mode);
}

// Removes the link active; all snapshots too when the daemon would unpack through a link. Names nothing below
// snapshots: its owner could lead a command of root's elsewhere.
std::string link_removal(const Facts& facts) {
    const std::string link = below_root(facts, "active");
    return in_the_way(facts.layout.at(Role::snapshots)) || in_the_way(facts.layout.at(Role::snapshot))
               ? shell_line("rm -rf", {link, below_root(facts, "snapshots")})
               : shell_line("rm -f", {link});
}

// For a damaged snapshot, which no restart touches while the link names it.
std::string refetching(const Facts& facts) {
    const std::string removal = link_removal(facts);
    return facts.layout.packaged && !removal.empty() ? removal + " && " + restart : removal;
}

void judge_configuration(const Facts& facts, Findings& found) {
    const std::string name = "the configuration " + shown(facts.config_path);
    std::string reason;
    if (facts.config_state == ConfigState::missing) {
        found.push_back({"config_missing", Verdict::warning, name + " is missing: the daemon uses its defaults",
                         "Write one, or name the right one with --config."});
    }
    if (facts.config_state == ConfigState::unreadable) {
        found.push_back({"config_unreadable", Verdict::unknown, name + " cannot be read: " + shown(facts.config_reason),
                         permission_advice});
    } else if (facts.config_state == ConfigState::malformed) {
        found.push_back({"config_malformed", Verdict::critical, name + " holds a malformed number",
                         "The daemon does not start: poll_interval_s, poll_jitter_s, retained_snapshots and "
                         "http_timeout_s have to begin with a number of at most 64 bits."});
    } else if (!facts.cfg.validate(reason)) {
        found.push_back({"config_unusable", Verdict::warning, reason,
                         "Set it in the configuration and restart the daemon: no check can succeed without."});
    }
}

void judge_kind(const Place& place, const Facts& facts, Findings& found) {
    const bool link = S_ISLNK(place.found.st_mode);
    const char* wrong = !link ? " is no directory" : place.role == Role::root ? " leads nowhere" : " is a link";
    const std::string elsewhere =
        place.role == Role::snapshots ? link_removal(facts) : shell_line("rm -f", {place.path});
    const std::string command = restart_or(facts, place.role == Role::root ? "" : elsewhere);
    found.push_back({"directory_kind", Verdict::critical, shown(place.path) + wrong,
                     "Once it is gone, the next start of the daemon makes the directory.", command});
}

void judge_owner(const Place& place, const Facts& facts, Findings& found) {
    const Place* root = facts.layout.at(Role::root);
    const bool of_packages = place.found.st_uid == 0 && place.found.st_gid == facts.layout.group;
    if (facts.layout.packaged && !of_packages) {
        found.push_back({"directory_owner", Verdict::warning,
                         shown(place.path) + " does not belong to root and the group zel-quorin",
                         "A hostile mirror could change its mode.", restart});
    } else if (!facts.layout.packaged && root != nullptr && place.found.st_uid != root->found.st_uid) {
        found.push_back({"directory_owner", Verdict::warning,
                         shown(place.path) + " has another owner than the definitions root",
                         "Give both to the user that runs the daemon."});
    }
}

void judge_mode(const Place& place, const Facts& facts, Findings& found) {
    const bool file = place.role == Role::status_file;
    const std::string path = shown(place.path);
    if (facts.layout.packaged && place.group_rights != (file ? 6 : 7)) {
        found.push_back({"directory_mode", Verdict::warning, path + " is closed to the service",
                         file ? "It cannot write its status." : "Its checks fail.", restart});
    }
    if (facts.layout.packaged && !file && (place.found.st_mode & S_ISVTX) == 0) {
        found.push_back({"directory_mode", Verdict::warning, path + " lacks the sticky bit",
                         "A hostile mirror could replace what root has put there.", restart});
    }
}

// The places that have to be directories with the right owner; in the packages' layout the status file too.
void judge_layout(const Facts& facts, Findings& found) {
    const bool of_packages = facts.layout.packaged && facts.layout.at(Role::status_directory) == nullptr;
    for (const Place& place : facts.layout.places) {
        const bool directory =
            place.role == Role::root || place.role == Role::snapshots || place.role == Role::manifest;
        const bool file = place.role == Role::status_file && of_packages && S_ISREG(place.found.st_mode);
        if (directory && !S_ISDIR(place.found.st_mode)) {
            judge_kind(place, facts, found);
        } else if (directory || file) {
            judge_owner(place, facts, found);
            judge_mode(place, facts, found);
        }
    }
}

void judge_writers(const Place& place, const Facts& facts, Findings& found) {
    const std::string text = shown(place.path) + " can be written by ";
    const bool unpacked = place.role == Role::snapshot || place.role == Role::definition;
    if (place.everybody && unpacked) {
        found.push_back({"writable_by_others", Verdict::critical, text + "everybody",
                         "Files keep the mode that the archive gives them. Others must not reach them.",
                         restart_or(facts, shell_line("chmod o-rwx", {facts.cfg.def_root}))});
    } else if (place.everybody) {
        found.push_back({"writable_by_others", Verdict::critical, text + "everybody",
                         "Other programs could replace the definitions or the status.",
                         restart_or(facts, shell_line("chmod o-w", {place.path}))});
    } else if (!place.writers.empty()) {
        std::string names;
        for (const std::string& name : place.writers) {
            names += (names.empty() ? "" : ", ") + shown(name);
        }
        found.push_back({"writable_by_others", Verdict::warning, text + names,
                         "Only the user that runs the daemon should write there.", restart_or(facts, "")});
    }
}

void judge_link(const Facts& facts, Findings& found) {
    const std::string path = shown(facts.cfg.def_root) + "/active";
    switch (facts.store.link) {
        case LinkState::in_service:
            break;
        case LinkState::missing:
            found.push_back({"active_missing", Verdict::critical, "no definitions are in service: there is no " + path,
                             no_definitions_advice, restart_or(facts, "")});
            break;
        case LinkState::unreadable:
            found.push_back({"active_unreadable", Verdict::unknown,
                             path + " cannot be looked at: " + facts.store.reason, permission_advice});
            break;
        case LinkState::no_link:
            found.push_back({"active_no_link", Verdict::critical, path + " is no link",
                             "The daemon replaces a file, but not a directory.",
                             restart_or(facts, shell_line("rm -rf", {below_root(facts, "active")}))});
            break;
        case LinkState::dangling:
            found.push_back({"active_dangling", Verdict::critical,
                             path + " leads nowhere: " + shown(facts.store.target) + " is no directory",
                             without_link_advice, restart_or(facts, link_removal(facts))});
            break;
        case LinkState::outside:
            found.push_back({"active_outside", Verdict::critical,
                             path + " leads to " + shown(facts.store.target) + ", which is no snapshot",
                             without_link_advice, restart_or(facts, link_removal(facts))});
            break;
    }
}

void judge_definition(const Definition& definition, const Facts& facts, Findings& found) {
    const std::string name = shown(definition.name);
    switch (definition.state) {
        case DefinitionState::present:
            if (definition.size == 0) {
                found.push_back({"definition_empty", Verdict::warning, name + " in the snapshot in service is empty",
                                 "The mirror serves it so, or the disk was full: compare with another gateway. In "
                                 "doubt remove the link active: the next check fetches the release again."});
            }
            break;
        case DefinitionState::missing:
            found.push_back({"definition_missing", Verdict::critical, name + " is missing from the snapshot in service",
                             "The flavor in the configuration is another one, somebody else has changed the snapshot, "
                             "or its disk is damaged. " +
                                 std::string(without_link_advice),
                             refetching(facts)});
            break;
        case DefinitionState::unreadable:
            found.push_back({"definition_unreadable", Verdict::unknown,
                             name + " in the snapshot in service cannot be looked at", permission_advice});
            break;
        case DefinitionState::not_regular:
            found.push_back(
                {"definition_not_regular", Verdict::critical, name + " in the snapshot in service is no regular file",
                 "Somebody else has changed the snapshot. " + std::string(without_link_advice), refetching(facts)});
            break;
    }
}

// Adds a finding when the age exceeds a limit.
void judge_age(const char* name, std::int64_t age, const Limit& limit, const std::string& text, const char* advice,
               Findings& found) {
    const Verdict verdict = limit.judge(age);
    if (verdict != Verdict::ok) {
        const std::int64_t bound = verdict == Verdict::critical ? limit.critical : limit.warning;
        found.push_back(
            {name, verdict, text + " " + duration_text(age) + " ago, more than " + duration_text(bound), advice});
    }
}

void judge_publication(const Facts& facts, const Limits& limits, Findings& found) {
    if (!facts.store.published) {
        return;
    }
    const std::int64_t published = *facts.store.published;
    if (published > facts.now + tolerance) {
        found.push_back({"publication_in_future", Verdict::warning,
                         "the publication is in the future, at " + utc_text(published),
                         "The clock was put back: its age is not known before the next publication."});
    }
    judge_age("definitions_old", age(facts.now, published), limits.definitions, "the definitions were published",
              "When the checks succeed, the mirror has had no new release since: see to the mirror.", found);
}

void judge_store(const Facts& facts, const Limits& limits, Findings& found) {
    judge_link(facts, found);
    for (const Definition& definition : facts.store.definitions) {
        judge_definition(definition, facts, found);
    }
    judge_publication(facts, limits, found);
    if (!facts.store.snapshots) {
        found.push_back({"snapshots_unreadable", Verdict::unknown,
                         shown(facts.cfg.def_root) + "/snapshots cannot be listed", permission_advice});
    }
}

const char* missing_advice(const Config& cfg) {
    return cfg.status_path.empty()
               ? "status_path is empty: the daemon writes no status file, and how it fares is not known."
               : "No check has ended yet, or the daemon cannot write there. Start it, and see that its user may write "
                 "that folder.";
}

// No command for a directory or a device elsewhere: it may well be status_path that is wrong.
std::string status_removal(const Facts& facts) {
    const Place* file = facts.layout.at(Role::status_file);
    const mode_t type = file == nullptr ? 0 : file->found.st_mode & S_IFMT;
    return type == S_IFLNK || type == S_IFIFO || type == S_IFSOCK ? shell_line("rm -f", {file->path}) : "";
}

void judge_status_fault(const Facts& facts, Findings& found) {
    const std::string path = "the status file " + shown(facts.cfg.status_path);
    const std::string why = ": " + shown(facts.status.reason);
    const char* rewritten =
        "The next check rewrites it. When it stays, something else writes it, or the daemon is of "
        "another version.";
    switch (facts.status.state) {
        case StatusState::valid:
            break;
        case StatusState::missing:
            found.push_back({"status_missing", Verdict::critical, path + " is missing", missing_advice(facts.cfg),
                             facts.cfg.status_path.empty() ? "" : restart_or(facts, "")});
            break;
        case StatusState::unreadable:
            found.push_back({"status_unreadable", Verdict::unknown, path + " cannot be read" + why, permission_advice});
            break;
        case StatusState::not_regular:
            found.push_back({"status_not_regular", Verdict::critical, path + " is no regular file",
                             "The daemon cannot write its status there. Restart it once that is gone.",
                             restart_or(facts, status_removal(facts))});
            break;
        case StatusState::unfinished:
            found.push_back({"status_unfinished", Verdict::unknown,
                             facts.status.empty ? path + " is empty" : path + " is cut short" + why,
                             facts.status.empty ? "No check has ended yet, or its disk is full."
                                                : "Its disk is full, or the daemon was killed while it wrote: make "
                                                  "room. The next check rewrites it."});
            break;
        case StatusState::too_long:
            found.push_back({"status_too_long", Verdict::unknown, path + " is not looked at" + why,
                             "The daemon writes that much only when the mirror gives such ids: see to the mirror."});
            break;
        case StatusState::invalid:
            found.push_back({"status_invalid", Verdict::unknown, path + " is none" + why, rewritten});
            break;
        case StatusState::schema:
            found.push_back({"status_schema", Verdict::unknown, path + " is not known" + why, rewritten});
            break;
    }
}

void judge_version(const Facts& facts, Findings& found) {
    const std::string& told = facts.status.contents.active_version;
    const bool readable = facts.store.link == LinkState::in_service || facts.store.link == LinkState::dangling;
    const bool fresh = age(facts.now, facts.store.published.value_or(0)) <= settling;
    if (readable && !fresh && told != tools::as_utf8(facts.store.version)) {
        found.push_back({"version_differs", Verdict::warning,
                         "active leads to " + shown(facts.store.version) + ", but the last check left " +
                             (told.empty() ? "none" : shown(told)),
                         "Somebody else has set the link, or the daemon was ended right after it. The next check "
                         "tells."});
    }
}

void judge_check(const Facts& facts, const Limits& limits, Findings& found) {
    const SnapshotStore::Status& status = facts.status.contents;
    if (!status.last_error.empty()) {
        found.push_back({"check_failed", Verdict::warning, "the last check failed: " + shown(status.last_error),
                         advice_for(status.last_error),
                         status.last_error == "publish/flip failed" ? restart_or(facts, "") : ""});
    }
    if (status.last_check_epoch > facts.now + tolerance) {
        found.push_back({"check_in_future", Verdict::warning,
                         "the last check is in the future, at " + utc_text(status.last_check_epoch),
                         "The clock was put back: a daemon that hangs is not noticed before the next check."});
    }
    judge_age(
        "check_late", age(facts.now, status.last_check_epoch), limits.check, "the last check began",
        "The daemon is stopped, hangs in a transfer, fails before it can tell (the log has run_once exception), or "
        "can no longer write its status file.",
        found);
    judge_version(facts, found);
}

Limit limit_for(const std::optional<std::int64_t>& warning, const std::optional<std::int64_t>& critical,
                std::int64_t standard) {
    const std::int64_t first = warning.value_or(standard);
    return {first, critical.value_or(2 * (first > 0 ? first : standard))};
}

}  // namespace

std::int64_t age(std::int64_t now, std::int64_t event) {
    return event >= now ? 0 : now - event;
}

std::int64_t longest_between_checks(const Config& cfg) {
    constexpr std::uint32_t longest_timeout = 2147483;  // libcurl refuses more
    const bool bounded = cfg.http_timeout_s > 0 && cfg.http_timeout_s <= longest_timeout;
    const std::int64_t transfer = bounded ? std::int64_t{cfg.http_timeout_s} : assumed_transfer;
    const std::int64_t check = 3 * transfer + disk_work;
    return std::int64_t{cfg.poll_interval_s} + std::int64_t{cfg.poll_jitter_s} + 2 * check;
}

Limits limits_for(const Wishes& wishes, const Config& cfg) {
    return {limit_for(wishes.warn_age, wishes.crit_age, old_definitions),
            limit_for(wishes.warn_check, wishes.crit_check, longest_between_checks(cfg))};
}

std::vector<Finding> judge(const Facts& facts, const Limits& limits) {
    Findings found;
    judge_configuration(facts, found);
    if (facts.looked) {
        judge_layout(facts, found);
        judge_store(facts, limits, found);
        judge_status_fault(facts, found);
        for (const Place& place : facts.layout.places) {
            judge_writers(place, facts, found);
        }
    }
    if (facts.looked && facts.status.state == StatusState::valid) {
        judge_check(facts, limits, found);
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const Finding& a, const Finding& b) { return a.verdict > b.verdict; });
    return found;
}

Verdict verdict_of(const std::vector<Finding>& findings) {
    return findings.empty() ? Verdict::ok : findings.front().verdict;
}

}  // namespace zqu::status_tool
