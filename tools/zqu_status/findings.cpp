#include <algorithm>
#include <set>

#include "report.hpp"
#include "text.hpp"

namespace zqu::status_tool {

using namespace tools;

namespace {

constexpr std::int64_t disk_work = 300;           // of one check: digests, unpacking, flushing, pruning
constexpr std::int64_t assumed_transfer = 300;    // when nothing bounds it
constexpr std::int64_t old_definitions = 172800;  // two days
constexpr std::int64_t tolerance = 60;            // a clock that was put back by less is not reported
constexpr std::int64_t settling = 60;             // from a publication to its status: flushing, pruning

constexpr std::size_t whole = 2000;  // the reason of a failed transfer is long when it is about a certificate

constexpr const char* restart = "systemctl restart zel_quorin_updater";

bool is_in_the_way(const Place* place) {
    return place != nullptr && !S_ISDIR(place->found.st_mode);
}

// The text of a kind with what stands for %1 and %2, which comes after %1.
std::string filled(std::string text, const std::string& first, const std::string& second) {
    for (const auto& [mark, value] : {std::pair("%2", second), std::pair("%1", first)}) {
        const std::size_t position = text.find(mark);
        text = position == std::string::npos ? text : text.replace(position, 2, value);
    }
    return text;
}

class Judge {
public:
    Judge(const Facts& facts, const Limits& limits, bool asked_for)
        : facts_(facts), store_(facts.store), layout_(facts.layout), limits_(limits), asked_for_(asked_for) {}

    std::vector<Matter> findings() {
        judge_configuration();
        judge_unit();
        if (facts_.looked) {
            judge_layout();
            judge_store();
            judge_status();
            for (const Place& place : layout_.places) {
                judge_writers(place);
            }
        }
        if (facts_.looked && facts_.status.state == StatusState::valid) {
            judge_check();
        }
        std::stable_sort(found_.begin(), found_.end(),
                         [](const Matter& a, const Matter& b) { return a.verdict > b.verdict; });
        return std::move(found_);
    }

private:
    // first and second replace %1 and %2, made harmless by shown().
    Matter& add(const std::string& name, const std::string& first, const std::string& second = "",
                const std::string& command = "", std::size_t most = 200) {
        const auto* const kind = std::find_if(kinds.begin(), kinds.end(),
                                              [&name](const FindingKind& candidate) { return candidate.name == name; });
        found_.push_back(
            {name, kind->verdict, filled(kind->text, shown(first, most), shown(second, most)), kind->advice, command});
        return found_.back();
    }

    // Each start of the packaged service repairs its directories; elsewhere the other command does.
    [[nodiscard]] std::string restart_or(const std::string& command) const {
        return layout_.packaged ? restart : command;
    }

    [[nodiscard]] std::string below_root(const std::string& name) const { return facts_.cfg.def_root + "/" + name; }

    // Removes the link active; all snapshots too when the daemon would unpack through a link. Names nothing below
    // snapshots: its owner could lead root's command elsewhere with a link.
    [[nodiscard]] std::string link_removal() const {
        const std::string link = below_root("active");
        return is_in_the_way(layout_.at(Role::snapshots)) || is_in_the_way(layout_.at(Role::snapshot))
                   ? shell_line("rm -rf", {link, below_root("snapshots")})
                   : shell_line("rm -f", {link});
    }

    // For a damaged snapshot. A restart does not touch it while the link names it.
    [[nodiscard]] std::string refetching() const {
        const std::string removal = link_removal();
        return layout_.packaged && !removal.empty() ? removal + " && " + restart : removal;
    }

    void judge_configuration() {
        std::string reason;
        if (facts_.config_state != ConfigState::read) {
            add(std::string("config_") + name_of(facts_.config_state), facts_.config_path, facts_.config_reason);
        }
        if (facts_.looked && !facts_.cfg.validate(reason)) {
            add("config_unusable", reason);
        }
    }

    // A masked unit cannot be enabled.
    [[nodiscard]] std::string enabling(const char* command) const {
        const Unit& unit = facts_.unit;
        std::string enable = shell_line(command, {unit.name});
        if (unit.unit_file_state.rfind("masked", 0) != 0 || enable.empty()) {
            return enable;
        }
        const char* unmask = unit.unit_file_state == "masked" ? "systemctl unmask" : "systemctl unmask --runtime";
        return shell_line(unmask, {unit.name}) + " && " + enable;
    }

    void judge_unit() {
        const Unit& unit = facts_.unit;
        const std::string& name = unit.name;
        const std::set<std::string> not_at_boot{"disabled", "enabled-runtime", "masked", "masked-runtime"};
        const bool enabled = not_at_boot.count(unit.unit_file_state) == 0;
        if (asked_for_ && !unit.reason.empty()) {
            add("service_unknown", name, unit.reason);
        } else if (asked_for_ && !unit.load_state.empty() && unit.active_state.empty()) {
            add("service_stopped", name, "not there");
        } else if (unit.active_state == "failed" || unit.sub_state == "auto-restart") {
            add("service_failed", name, unit.result,
                shell_line("systemctl reset-failed", {name}) + " && " + shell_line("systemctl restart", {name}));
        } else if (unit.active_state == "inactive") {
            add("service_stopped", name, enabled ? "stopped" : "stopped and " + unit.unit_file_state,
                enabled ? shell_line("systemctl start", {unit.name}) : enabling("systemctl enable --now"));
        } else if (!unit.active_state.empty() && !enabled) {
            add("service_disabled", name, unit.unit_file_state, enabling("systemctl enable"));
        }
        for (const std::string& path : unit.writable) {
            add("drop_in_left", name, path);
        }
    }

    // The places that have to be directories with the right owner; in the packages' layout the status file too.
    void judge_layout() {
        const bool of_packages = layout_.packaged && layout_.at(Role::status_directory) == nullptr;
        for (const Place& place : layout_.places) {
            const bool directory =
                place.role == Role::root || place.role == Role::snapshots || place.role == Role::manifest;
            const bool file = place.role == Role::status_file && of_packages && S_ISREG(place.found.st_mode);
            if (directory && !S_ISDIR(place.found.st_mode)) {
                judge_kind(place);
            } else if (directory || file) {
                judge_owner(place);
                judge_mode(place, file);
            }
        }
    }

    void judge_kind(const Place& place) {
        const bool link = S_ISLNK(place.found.st_mode);
        const char* wrong = !link ? "is no directory" : place.role == Role::root ? "leads nowhere" : "is a link";
        const std::string removal = place.role == Role::snapshots ? link_removal() : shell_line("rm -f", {place.path});
        add("directory_kind", place.path, wrong, restart_or(place.role == Role::root ? "" : removal));
    }

    void judge_owner(const Place& place) {
        const Place* root = layout_.at(Role::root);
        const bool of_packages = place.found.st_uid == 0 && place.found.st_gid == layout_.group;
        if (layout_.packaged && !of_packages) {
            add("directory_owner", place.path, "does not belong to root and the group zel-quorin", restart);
        } else if (!layout_.packaged && root != nullptr && place.found.st_uid != root->found.st_uid) {
            add("directory_owner", place.path, "has another owner than the definitions root").advice =
                "Give both to the user that runs the daemon.";
        }
    }

    void judge_mode(const Place& place, bool file) {
        if (layout_.packaged && place.group_rights != (file ? 6 : 7)) {
            add("directory_mode", place.path, "is closed to the service", restart).advice =
                file ? "It cannot write its status." : "Its checks fail.";
        }
        if (layout_.packaged && !file && (place.found.st_mode & S_ISVTX) == 0) {
            add("directory_mode", place.path, "lacks the sticky bit", restart);
        }
    }

    void judge_writers(const Place& place) {
        const bool unpacked = place.role == Role::snapshot || place.role == Role::definition;
        if (place.everybody && unpacked) {
            const std::string closing = shell_line("chmod o-rwx", {facts_.cfg.def_root});
            add("writable_by_others", place.path, "everybody", restart_or(closing)).advice =
                "Files keep the mode that the archive gives them. Others must not reach them.";
        } else if (place.everybody) {
            add("writable_by_others", place.path, "everybody", restart_or(shell_line("chmod o-w", {place.path})));
        } else if (!place.writers.empty()) {
            Matter& writers = add("writable_by_others", place.path, place.writers, restart_or(""));
            writers.verdict = Verdict::warning;
            writers.advice = "Only the user that runs the daemon should write there.";
        }
    }

    void judge_store() {
        if (store_.link != LinkState::in_service) {
            const bool missing = store_.link == LinkState::missing;
            const bool unreadable = store_.link == LinkState::unreadable;
            const std::string removal =
                store_.link == LinkState::no_link ? shell_line("rm -rf", {below_root("active")}) : link_removal();
            add(std::string("active_") + name_of(store_.link), below_root("active"),
                unreadable ? store_.reason : store_.target, unreadable ? "" : restart_or(missing ? "" : removal));
        }
        for (const Definition& definition : store_.definitions) {
            judge_definition(definition);
        }
        judge_comparison();
        judge_publication();
        if (!store_.snapshots) {
            add("snapshots_unreadable", below_root("snapshots"));
        }
    }

    void judge_definition(const Definition& definition) {
        const bool present = definition.state == DefinitionState::present;
        const std::string path = below_root("snapshots/" + store_.version + "/" + definition.name);
        const auto place = std::find_if(layout_.places.begin(), layout_.places.end(),
                                        [&path](const Place& candidate) { return candidate.path == path; });
        if (!present) {
            add(std::string("definition_") + name_of(definition.state), definition.name, "",
                definition.state == DefinitionState::unreadable ? "" : refetching());
        } else if (place != layout_.places.end() && place->closed) {
            add("definition_closed", definition.name, layout_.readers ? "the group zel-quorin-readers" : "anybody",
                restart_or(""));
        }
        const ComparisonState compared = facts_.comparison.state;
        const bool decided = compared == ComparisonState::same || compared == ComparisonState::differs;
        if (present && definition.changed && !decided) {
            add("definition_changed", definition.name);
        }
    }

    void judge_comparison() {
        const Comparison& comparison = facts_.comparison;
        for (const std::string& name : comparison.differing) {
            add("definition_differs", name, "", refetching());
        }
        if (comparison.state == ComparisonState::gone && comparison.reason == store_.version) {
            add("release_gone", store_.version, store_.version + ", whose description is missing").advice =
                "No gateway can fetch it: the mirror has to be repaired.";
        } else if (comparison.state == ComparisonState::gone) {
            add("release_gone", store_.version, comparison.reason);
        } else if (comparison.state == ComparisonState::failed) {
            add("not_compared", comparison.reason, "", "", whole);
        }
        for (const std::string& text : comparison.warnings) {
            add(text.rfind("redirected", 0) == 0 ? "insecure_redirect" : "certificate_ends", text, "", "", whole);
        }
    }

    void judge_publication() {
        if (store_.published && *store_.published > facts_.now + tolerance) {
            add("publication_in_future", utc_text(*store_.published));
        }
        if (store_.published) {
            judge_age("definitions_old", *store_.published, limits_.definitions_age);
        }
    }

    void judge_age(const char* name, std::int64_t event, const Limit& limit) {
        const std::int64_t seconds = age(facts_.now, event);
        const Verdict verdict = limit.judge(seconds);
        if (verdict != Verdict::ok) {
            const std::int64_t bound = verdict == Verdict::critical ? limit.critical : limit.warning;
            add(name, duration_text(seconds) + " ago, more than " + duration_text(bound)).verdict = verdict;
        }
    }

    // What repairs a status file. None for a directory or a device elsewhere: status_path may be wrong.
    [[nodiscard]] std::string status_command() const {
        const Place* file = layout_.at(Role::status_file);
        const mode_t type = file == nullptr ? 0 : file->found.st_mode & S_IFMT;
        switch (facts_.status.state) {
            case StatusState::missing:
                return facts_.cfg.status_path.empty() ? "" : restart_or("");
            case StatusState::not_regular:
                return restart_or(
                    type == S_IFLNK || type == S_IFIFO || type == S_IFSOCK ? shell_line("rm -f", {file->path}) : "");
            default:
                return "";
        }
    }

    void judge_status() {
        const StatusFile& status = facts_.status;
        if (status.state == StatusState::valid) {
            return;
        }
        Matter& fault = add(std::string("status_") + name_of(status.state), facts_.cfg.status_path, status.reason,
                            status_command());
        if (status.empty) {
            fault.text = "the status file " + shown(facts_.cfg.status_path) + " is empty";
            fault.advice = "No check has ended yet, or its disk is full.";
        } else if (facts_.cfg.status_path.empty()) {
            fault.advice = "status_path is empty: the daemon writes no status file, and its state is not known.";
        }
    }

    void judge_check() {
        const SnapshotStore::Status& status = facts_.status.contents;
        if (!status.last_error.empty()) {
            add("check_failed", status.last_error, "", status.last_error == "publish/flip failed" ? restart_or("") : "")
                .advice = advice_for(status.last_error);
        }
        if (status.last_check_epoch > facts_.now + tolerance) {
            add("check_in_future", utc_text(status.last_check_epoch));
        }
        judge_age("check_late", status.last_check_epoch, limits_.check_age);
        const bool readable = store_.link == LinkState::in_service || store_.link == LinkState::dangling;
        const bool fresh = age(facts_.now, store_.published.value_or(0)) <= settling;
        if (readable && !fresh && status.active_version != tools::as_utf8(store_.version)) {
            add("version_differs", store_.version, status.active_version.empty() ? "none" : status.active_version);
        }
    }

    const Facts& facts_;
    const Store& store_;
    const Layout& layout_;
    const Limits& limits_;
    const bool asked_for_;
    std::vector<Matter> found_;
};

// The longest that two checks in a row can be apart by the settings.
std::int64_t longest_between_checks(const Config& cfg) {
    constexpr std::uint32_t longest_timeout = 2147483;  // libcurl refuses more
    const bool bounded = cfg.http_timeout_s > 0 && cfg.http_timeout_s <= longest_timeout;
    const std::int64_t transfer = bounded ? std::int64_t{cfg.http_timeout_s} : assumed_transfer;
    return std::int64_t{cfg.poll_interval_s} + std::int64_t{cfg.poll_jitter_s} + 2 * (3 * transfer + disk_work);
}

Limit limit_for(const Limit& wish, std::int64_t standard) {
    const std::int64_t first = wish.warning < 0 ? standard : wish.warning;
    return {first, wish.critical < 0 ? 2 * (first > 0 ? first : standard) : wish.critical};
}

}  // namespace

std::int64_t age(std::int64_t now, std::int64_t event) {
    return event >= now ? 0 : now - event;
}

Limits limits_for(const Limits& wishes, const Config& cfg) {
    return {limit_for(wishes.definitions_age, old_definitions),
            limit_for(wishes.check_age, longest_between_checks(cfg))};
}

Report judge(Facts facts, const Limits& limits, bool asked_for) {
    Report report{std::move(facts), limits, {}, Verdict::ok};
    report.findings = Judge(report.facts, limits, asked_for).findings();
    report.verdict = report.findings.empty() ? Verdict::ok : report.findings.front().verdict;
    return report;
}

std::string unit_text(const Unit& unit) {
    if (!unit.active_state.empty()) {
        return unit.active_state + " (" + unit.sub_state + ")" +
               (unit.unit_file_state.empty() ? "" : ", " + unit.unit_file_state);
    }
    return unit.reason.empty() ? unit.load_state : "not known: " + shown(unit.reason);
}

}  // namespace zqu::status_tool
