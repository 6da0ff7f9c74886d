#include <nlohmann/json.hpp>

#include "forms.hpp"
#include "text.hpp"

namespace zqu::status_tool {

using namespace tools;

namespace {

using json = nlohmann::ordered_json;

json findings_json(const Report& report) {
    json list = json::array();
    for (const Finding& finding : report.findings) {
        list.push_back({{"finding", finding.name},
                        {"verdict", name_of(finding.verdict)},
                        {"text", finding.text},
                        {"advice", finding.advice},
                        {"command", finding.command.empty() ? json() : json(finding.command)}});
    }
    return list;
}

// mirror_base_url is left out: it may hold a password.
json configuration_json(const Facts& facts) {
    json result = {{"path", facts.config_path}, {"state", name_of(facts.config_state)}};
    const Config& cfg = facts.cfg;
    const json settings = {{"flavor", cfg.flavor},
                           {"def_root", cfg.def_root},
                           {"status_path", cfg.status_path},
                           {"poll_interval_s", cfg.poll_interval_s},
                           {"poll_jitter_s", cfg.poll_jitter_s},
                           {"retained_snapshots", cfg.retained_snapshots},
                           {"http_timeout_s", cfg.http_timeout_s}};
    result["settings"] = facts.looked ? settings : json();
    return result;
}

json active_json(const Store& store) {
    json result = {
        {"state", name_of(store.link)}, {"version", nullptr}, {"target", nullptr}, {"published_epoch", nullptr}};
    if (store.published) {
        result["version"] = store.version;
        result["target"] = store.target;
        result["published_epoch"] = *store.published;
    }
    result["definitions"] = json::array();
    for (const Definition& definition : store.definitions) {
        const bool present = definition.state == DefinitionState::present;
        result["definitions"].push_back({{"name", definition.name},
                                         {"state", name_of(definition.state)},
                                         {"size", present ? json(definition.size) : json()}});
    }
    result["snapshots"] = store.snapshots ? json(*store.snapshots) : json();
    return result;
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
            {"reason", valid ? json() : json(status.reason)},
            {"contents", valid ? contents_json(status.contents) : json()}};
}

json next_check_json(const Facts& facts) {
    const std::optional<Span> next = next_check(facts);
    return next ? json{{"earliest_epoch", next->earliest}, {"latest_epoch", next->latest}} : json();
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
        {"limits_s",
         {{"definitions_age", limit_json(report.limits.definitions)}, {"check_age", limit_json(report.limits.check)}}},
    };
    return document.dump(2, ' ', true, json::error_handler_t::replace) + "\n";
}

}  // namespace zqu::status_tool
