#include <algorithm>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "report.hpp"
#include "settings.hpp"
#include "text.hpp"

namespace zqu::status_tool {

using namespace tools;

namespace {

constexpr std::size_t label_width = 13;

std::string word(Verdict verdict, bool colour) {
    static constexpr std::array<const char*, 4> colours{"\033[32m", "\033[33m", "\033[35m", "\033[31m"};
    return colour ? colours.at(static_cast<std::size_t>(verdict)) + plugin_word(verdict) + "\033[0m"
                  : plugin_word(verdict);
}

std::string line(const std::string& label, const std::string& value) {
    return label + std::string(label_width - label.size(), ' ') + value + "\n";
}

// Prose, broken at blanks into lines of at most 87 bytes behind the labels.
std::string paragraph(const std::string& prose) {
    static const std::regex row("(.{1,87})( |$)");
    return std::regex_replace(prose, row, std::string(label_width, ' ') + "$1\n");
}

std::string moment(std::int64_t now, std::int64_t event) {
    const std::int64_t ahead = event - now;
    return utc_text(event) +
           (ahead > 0 ? ", " + duration_text(ahead) + " ahead" : ", " + duration_text(age(now, event)) + " ago");
}

std::string findings_text(const Report& report, bool colour) {
    std::string text;
    for (const Matter& finding : report.findings) {
        const std::string name = name_of(finding.verdict);
        text += word(finding.verdict, colour) + std::string(label_width - name.size(), ' ') + finding.text + "\n";
        text += paragraph(finding.advice) + (finding.command.empty() ? "" : line("", finding.command));
    }
    return text;
}

std::string store_text(const Report& report) {
    const Facts& facts = report.facts;
    const Store& store = facts.store;
    std::string text = line("release", store.published ? shown(store.version) : "none");
    if (store.published) {
        text += line("in service", "since " + moment(facts.now, *store.published));
    }
    for (const Definition& definition : store.definitions) {
        if (definition.size) {
            text += line("file", shown(definition.name) + ", " + std::to_string(*definition.size) + " bytes");
        }
    }
    const std::string count = store.snapshots ? std::to_string(*store.snapshots) : "unknown";
    return text + line("snapshots", count + ", of which the updater keeps " +
                                        std::to_string(std::max(facts.cfg.retained_snapshots, 1U)));
}

std::string check_text(const Report& report) {
    const SnapshotStore::Status& status = report.facts.status.contents;
    if (report.facts.status.state != StatusState::valid) {
        return line("last check", "unknown");
    }
    const auto next = next_check(report.facts);
    const std::string outcome = status.last_error.empty() ? ": succeeded" : ": failed";
    return line("last check", moment(report.facts.now, status.last_check_epoch) + outcome) +
           line("last error", status.last_error.empty() ? "none" : shown(status.last_error)) +
           line("next check",
                next ? utc_text(next->first) + " to " + utc_text(next->second) + ", and later by what the last one took"
                     : "unknown") +
           line("engine", status.engine_version.empty() ? "not set" : shown(status.engine_version));
}

using json = nlohmann::ordered_json;

json findings_json(const Report& report) {
    json list = json::array();
    for (const Matter& finding : report.findings) {
        list.push_back({{"finding", finding.name},
                        {"verdict", name_of(finding.verdict)},
                        {"text", finding.text},
                        {"advice", finding.advice},
                        {"command", finding.command.empty() ? json() : json(finding.command)}});
    }
    return list;
}

template <typename T>
json known(bool is_known, const T& value) {
    return is_known ? json(value) : json();
}

// mirror_base_url is left out: it may hold a password.
json configuration_json(const Facts& facts) {
    static const std::set<std::string> hidden{"mirror_base_url", "mirror_subdir", "ca_path", "engine_version"};
    json shown_settings;
    for (const Setting& setting : settings) {
        if (hidden.count(setting.name) == 0) {
            shown_settings[setting.name] =
                setting.text != nullptr ? json(facts.cfg.*setting.text) : json(facts.cfg.*setting.number);
        }
    }
    return {{"path", facts.config_path},
            {"state", name_of(facts.config_state)},
            {"settings", known(facts.looked, shown_settings)}};
}

json active_json(const Store& store) {
    const bool linked = store.published.has_value();
    json definitions = json::array();
    for (const Definition& definition : store.definitions) {
        definitions.push_back({{"name", definition.name},
                               {"state", name_of(definition.state)},
                               {"size", known(definition.size.has_value(), definition.size.value_or(0))},
                               {"changed", definition.changed}});
    }
    return {{"state", name_of(store.link)},
            {"version", known(linked, store.version)},
            {"target", known(linked, store.target)},
            {"published_epoch", known(linked, store.published.value_or(0))},
            {"definitions", definitions},
            {"snapshots", known(store.snapshots.has_value(), store.snapshots.value_or(0))}};
}

json status_json(const StatusFile& status) {
    const bool valid = status.state == StatusState::valid;
    nlohmann::json contents = status.contents;
    contents["schema_version"] = 1;
    return {{"state", name_of(status.state)},
            {"reason", known(!valid, status.reason)},
            {"contents", known(valid, contents)}};
}

json unit_json(const Unit& unit) {
    json words = nlohmann::json(unit);
    words.erase("writable");
    for (json& word : words) {
        word = known(word != json(""), word);
    }
    return words;
}

json next_check_json(const Facts& facts) {
    const auto next = next_check(facts);
    return next ? json{{"earliest_epoch", next->first}, {"latest_epoch", next->second}} : json();
}

json comparison_json(const Comparison& comparison) {
    const std::int64_t end = comparison.chain_end ? comparison.chain_end->epoch : 0;
    return {{"state", name_of(comparison.state)},
            {"reason", known(!comparison.reason.empty(), comparison.reason)},
            {"differing", comparison.differing},
            {"certificate_end_epoch", known(end != 0, end)}};
}

std::string summary(const Report& report) {
    const Facts& facts = report.facts;
    const std::string unit = unit_text(facts.unit);
    std::string text;
    bool unit_said = facts.unit.reason.empty() || !facts.unit.active_state.empty();
    for (const Matter& finding : report.findings) {
        text += (text.empty() ? "" : "; ") + finding.text;
        unit_said = unit_said || finding.name == "service_unknown";
    }
    if (!text.empty() || !facts.store.published) {
        return text + (unit_said ? "" : "; service " + unit);
    }
    return shown(facts.store.version) + " in service for " + duration_text(age(facts.now, *facts.store.published)) +
           ", last check " + duration_text(age(facts.now, facts.status.contents.last_check_epoch)) + " ago" +
           (unit.empty() ? "" : ", service " + unit);
}

void verdicts(const Report& report, Exposition& out) {
    out.verdict("verdict", "Whether this is the verdict on the definitions; one of the four is 1.", report.verdict);
    out.head("finding", "Whether something is the matter: 1 for each finding there is.");
    for (const FindingKind& kind : kinds) {
        const bool found = std::any_of(report.findings.begin(), report.findings.end(),
                                       [&kind](const Matter& finding) { return finding.name == kind.name; });
        out.sample({{"finding", kind.name}}, found ? "1" : "0");
    }
}

void unit(const Unit& unit, Exposition& out) {
    if (unit_text(unit).empty()) {
        return;
    }
    const nlohmann::json words = unit;
    Exposition::Labels labels{{"unit", unit.name}};
    for (const char* name : {"load_state", "active_state", "sub_state", "unit_file_state", "result"}) {
        labels.emplace_back(name, unit.reason.empty() || words[name] != nlohmann::json("") ? words[name] : "unknown");
    }
    out.head("unit_info", "The state of the updater's unit, in systemd's words, or unknown; always 1.");
    out.sample(labels, "1");
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
        out.gauge("publication_timestamp_seconds", "When the release in service was published.", store.published);
    }
    static constexpr std::array<const char*, 2> kinds{"antivir", "aivsecon"};
    if (!store.definitions.empty()) {
        out.head("definition_file_size_bytes", "Size of a definition file in service; 0 when it is not there.");
        for (std::size_t i = 0; i < store.definitions.size(); ++i) {
            out.sample({{"file", kinds.at(i)}}, std::to_string(store.definitions[i].size.value_or(0)));
        }
    }
    out.gauge("snapshots", "Snapshots on the disk.", store.snapshots);
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

std::string text_form(const Report& report, bool colour) {
    std::string text = line("verdict", word(report.verdict, colour)) + findings_text(report, colour);
    if (report.facts.looked) {
        text += store_text(report) + check_text(report);
    }
    const std::string unit = unit_text(report.facts.unit);
    if (report.facts.comparison.state == ComparisonState::same) {
        text += line("verified", "the definitions are those of the mirror, in every byte");
    }
    text += unit.empty() ? "" : line("service", unit);
    return text + line("observed", utc_text(report.facts.now));
}

std::string json_form(const Report& report) {
    const Facts& facts = report.facts;
    const json document = {
        {"format", 1},
        {"verdict", name_of(report.verdict)},
        {"observed_epoch", facts.now},
        {"findings", findings_json(report)},
        {"configuration", configuration_json(facts)},
        {"active", facts.looked ? active_json(facts.store) : json()},
        {"status", facts.looked ? status_json(facts.status) : json()},
        {"next_check", next_check_json(facts)},
        {"comparison",
         facts.comparison.state == ComparisonState::not_asked_for ? json() : comparison_json(facts.comparison)},
        {"unit", unit_text(facts.unit).empty() ? json() : unit_json(facts.unit)},
        {"limits_s", nlohmann::json(report.limits)},
    };
    return document.dump(2, ' ', true, json::error_handler_t::replace) + "\n";
}

std::string nagios_form(const Report& report) {
    const Facts& facts = report.facts;
    std::string data;
    if (facts.store.published) {
        data += performance("age", age(facts.now, *facts.store.published), report.limits.definitions_age);
    }
    if (facts.looked && facts.status.state == StatusState::valid) {
        data +=
            performance("check_age", age(facts.now, facts.status.contents.last_check_epoch), report.limits.check_age);
    }
    return nagios_line(nagios_service, report.verdict, summary(report), data);
}

std::string prometheus_form(const Report& report) {
    Exposition out;
    verdicts(report, out);
    unit(report.facts.unit, out);
    out.limit("definitions_age_limit_seconds", "Age of the release from which on it is too old.",
              report.limits.definitions_age);
    if (report.facts.looked) {
        store(report.facts, out);
        check(report.facts, out);
        out.limit("check_age_limit_seconds", "Age of the last check from which on it is too old.",
                  report.limits.check_age);
    }
    out.gauge("observation_timestamp_seconds", "When zqu-status looked.", report.facts.now);
    return out.text();
}

}  // namespace zqu::status_tool
