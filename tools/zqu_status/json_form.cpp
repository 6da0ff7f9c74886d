#include <nlohmann/json.hpp>

#include "report.hpp"
#include "text.hpp"

namespace zqu::status_tool {

using namespace tools;

namespace {

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
    const Config& cfg = facts.cfg;
    const json settings = {{"flavor", cfg.flavor},
                           {"def_root", cfg.def_root},
                           {"status_path", cfg.status_path},
                           {"poll_interval_s", cfg.poll_interval_s},
                           {"poll_jitter_s", cfg.poll_jitter_s},
                           {"retained_snapshots", cfg.retained_snapshots},
                           {"http_timeout_s", cfg.http_timeout_s}};
    return {{"path", facts.config_path},
            {"state", name_of(facts.config_state)},
            {"settings", known(facts.looked, settings)}};
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

json contents_json(const SnapshotStore::Status& status) {
    return {{"schema_version", 1},
            {"active_version", status.active_version},
            {"engine_version", status.engine_version},
            {"antivir_def_version", status.antivir_def_version},
            {"aivsecon_def_version", status.aivsecon_def_version},
            {"last_check_epoch", status.last_check_epoch},
            {"last_success_epoch", status.last_success_epoch},
            {"last_error", status.last_error}};
}

json status_json(const StatusFile& status) {
    const bool valid = status.state == StatusState::valid;
    return {{"state", name_of(status.state)},
            {"reason", known(!valid, status.reason)},
            {"contents", known(valid, contents_json(status.contents))}};
}

json unit_json(const Unit& unit) {
    const bool found = !unit.active.empty();
    return {{"name", unit.name},
            {"load_state", known(!unit.load.empty(), unit.load)},
            {"active_state", known(found, unit.active)},
            {"sub_state", known(found, unit.sub)},
            {"unit_file_state", known(found, unit.file)},
            {"result", known(found, unit.result)},
            {"reason", known(!unit.reason.empty(), unit.reason)}};
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

json limit_json(const Limit& limit) {
    return {{"warning", limit.warning}, {"critical", limit.critical}};
}

}  // namespace

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
        {"limits_s",
         {{"definitions_age", limit_json(report.limits.definitions)}, {"check_age", limit_json(report.limits.check)}}},
    };
    return document.dump(2, ' ', true, json::error_handler_t::replace) + "\n";
}

}  // namespace zqu::status_tool
