#include <algorithm>
#include <array>

#include "report.hpp"
#include "text.hpp"

namespace zqu::status_tool {

using namespace tools;

namespace {

std::string summary(const Report& report) {
    const Facts& facts = report.facts;
    std::string text;
    for (const Matter& finding : report.findings) {
        text += (text.empty() ? "" : "; ") + finding.text;
    }
    if (!text.empty() || !facts.store.published) {
        return text;
    }
    const std::string unit = unit_text(facts.unit);
    return shown(facts.store.version) + " in service for " + duration_text(age(facts.now, *facts.store.published)) +
           ", last check " + duration_text(age(facts.now, facts.status.contents.last_check_epoch)) + " ago" +
           (unit.empty() ? "" : ", service " + unit);
}

void verdicts(const Report& report, Exposition& out) {
    out.verdict("verdict", "Whether this is the verdict on the definitions; one of the four is 1.", report.verdict);
    out.head("finding", "Whether something is the matter: 1 for each finding there is.");
    for (const FindingKind& kind : kinds()) {
        const bool found = std::any_of(report.findings.begin(), report.findings.end(),
                                       [&kind](const Matter& finding) { return finding.name == kind.name; });
        out.sample({{"finding", kind.name}}, found ? "1" : "0");
    }
}

void limits(const std::string& name, const std::string& help, const Limit& limit, Exposition& out) {
    if (limit.warning > 0 || limit.critical > 0) {
        out.head(name, help);
    }
    for (const auto& [severity, value] : {std::pair("warning", limit.warning), std::pair("critical", limit.critical)}) {
        if (value > 0) {
            out.sample({{"severity", severity}}, std::to_string(value));
        }
    }
}

void unit(const Unit& unit, Exposition& out) {
    if (!unit.load.empty()) {
        out.head("unit_info", "The state of the updater's unit, in systemd's words; always 1.");
        out.sample({{"unit", unit.name},
                    {"load_state", unit.load},
                    {"active_state", unit.active},
                    {"sub_state", unit.sub},
                    {"unit_file_state", unit.file},
                    {"result", unit.result}},
                   "1");
    }
}

void store(const Facts& facts, Exposition& out) {
    const Store& store = facts.store;
    if (store.published) {
        out.head("release_info", "The release that the link active names, and what it serves; always 1.");
        const bool valid = facts.status.state == StatusState::valid;
        out.sample({{"version", store.version},
                    {"flavor", facts.cfg.flavor},
                    {"engine_version", valid ? facts.status.contents.engine_version : facts.cfg.engine_version}},
                   "1");
        out.gauge("publication_timestamp_seconds", "When the release in service was published.", *store.published);
    }
    static constexpr std::array<const char*, 2> kinds{"antivir", "aivsecon"};
    if (!store.definitions.empty()) {
        out.head("definition_file_size_bytes", "Size of a definition file in service; 0 when it is not there.");
        for (std::size_t i = 0; i < store.definitions.size(); ++i) {
            out.sample({{"file", kinds.at(i)}}, std::to_string(store.definitions[i].size.value_or(0)));
        }
    }
    if (store.snapshots) {
        out.gauge("snapshots", "Snapshots on the disk.", static_cast<std::int64_t>(*store.snapshots));
    }
}

void check(const Facts& facts, Exposition& out) {
    if (facts.status.state == StatusState::valid) {
        const SnapshotStore::Status& status = facts.status.contents;
        out.gauge("last_check_timestamp_seconds", "When the last check began.", status.last_check_epoch);
        out.gauge("last_check_success", "Whether the last check succeeded.", status.last_error.empty() ? 1 : 0);
    }
    out.gauge("retained_snapshots", "Snapshots that pruning keeps.", facts.cfg.retained_snapshots);
    out.gauge("poll_interval_seconds", "Pause between two checks.", facts.cfg.poll_interval_s);
    out.gauge("poll_jitter_seconds", "What is added to that pause at most.", facts.cfg.poll_jitter_s);
    if (facts.comparison.chain_end) {
        out.gauge("mirror_certificate_end_timestamp_seconds", "When the first certificate of the mirror's chain ends.",
                  facts.comparison.chain_end->epoch);
    }
}

}  // namespace

std::string nagios_form(const Report& report) {
    const Facts& facts = report.facts;
    std::string data;
    if (facts.store.published) {
        data += performance("age", age(facts.now, *facts.store.published), report.limits.definitions);
    }
    if (facts.looked && facts.status.state == StatusState::valid) {
        data += performance("check_age", age(facts.now, facts.status.contents.last_check_epoch), report.limits.check);
    }
    return nagios_line(nagios_service, report.verdict, summary(report), data);
}

std::string prometheus_form(const Report& report) {
    Exposition out;
    verdicts(report, out);
    unit(report.facts.unit, out);
    limits("definitions_age_limit_seconds", "Age of the release from which on it is too old.",
           report.limits.definitions, out);
    if (report.facts.looked) {
        store(report.facts, out);
        check(report.facts, out);
        limits("check_age_limit_seconds", "Age of the last check from which on it is too old.", report.limits.check,
               out);
    }
    out.gauge("observation_timestamp_seconds", "When zqu-status looked.", report.facts.now);
    return out.text();
}

}  // namespace zqu::status_tool
