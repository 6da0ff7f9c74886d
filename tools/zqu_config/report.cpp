#include "findings.hpp"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "mirror_client.hpp"
#include "text.hpp"

namespace zqu::config_tool {

using namespace tools;

namespace {

using nlohmann::ordered_json;

constexpr Severity severities[] = {Severity::error, Severity::warning, Severity::note};

std::string name_of(Severity severity) {
    static constexpr const char* names[] = {"note", "warning", "error"};
    return names[static_cast<std::size_t>(severity)];
}

constexpr const char* fatal_text = "a number without digits or beyond 64 bits: the daemon would end at its start";

std::string dump(const ordered_json& object) {
    return object.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

std::string row(const std::string& name, const std::string& value, const std::string& source = "") {
    constexpr std::size_t width = 20;
    std::string line = name + std::string(width - std::min(width, name.size()), ' ') + printable(value);
    return line + (source.empty() ? "" : "    (" + source + ")") + "\n";
}

ordered_json line_or_null(std::size_t line) {
    return line == 0 ? ordered_json(nullptr) : ordered_json(line);
}

ordered_json derived(const Config& cfg) {
    return {{"hit_ini_url", MirrorClient(cfg).hit_ini_url()},
            {"definition_files", {"antivir-" + cfg.flavor + ".def", "aivsecon-" + cfg.flavor + ".def"}},
            {"snapshots", cfg.def_root + "/snapshots"},
            {"active", cfg.def_root + "/active"}};
}

}  // namespace

std::size_t Findings::count(Severity severity) const {
    return static_cast<std::size_t>(std::count_if(
        all_.begin(), all_.end(), [severity](const LineFinding& finding) { return finding.severity == severity; }));
}

void Findings::add(Severity severity, std::size_t line, const std::string& text) {
    // Line 0 comes last: subtracting one from it gives the largest number.
    const auto later = [](const LineFinding& a, const LineFinding& b) { return a.line - 1 < b.line - 1; };
    const LineFinding finding{severity, line, text};
    all_.insert(std::upper_bound(all_.begin(), all_.end(), finding, later), finding);
}

bool Findings::first(std::size_t line, const std::string& key, const std::vector<Rule>& rules) {
    const auto found = std::find_if(rules.begin(), rules.end(), [](const Rule& rule) { return rule.applies; });
    if (found == rules.end()) {
        return false;
    }
    add(found->severity, line, key + ": " + found->text);
    return true;
}

std::string Findings::as_text(const std::string& path) const {
    const std::string file = printable(path);
    std::string text;
    for (const LineFinding& finding : all_) {
        const std::string line = finding.line == 0 ? "" : ":" + std::to_string(finding.line);
        text += file + line + ": " + name_of(finding.severity) + ": " + finding.text + "\n";
    }
    std::string counts;
    for (const Severity severity : severities) {
        if (const std::size_t number = count(severity)) {
            counts += (counts.empty() ? "" : ", ") + std::to_string(number) + " " + name_of(severity);
            counts += number == 1 ? "" : "s";
        }
    }
    return text + file + ": " + (counts.empty() ? "nothing found" : counts) + "\n";
}

std::string Findings::as_json(const std::string& path) const {
    ordered_json object;
    object["file"] = path;
    for (const Severity severity : severities) {
        object[name_of(severity) + "s"] = count(severity);
    }
    ordered_json& list = object["findings"] = ordered_json::array();
    for (const LineFinding& finding : all_) {
        list.push_back(
            {{"line", line_or_null(finding.line)}, {"severity", name_of(finding.severity)}, {"text", finding.text}});
    }
    return dump(object);
}

std::string shown_as_text(const Reading& reading) {
    const std::string path = printable(reading.path);
    if (!reading.trouble.empty()) {
        return path + ": error: " + reading.trouble + "\n";
    }
    if (reading.fatal != 0) {
        return path + ":" + std::to_string(reading.fatal) + ": error: " + fatal_text + "\n";
    }
    std::string text;
    for (const Setting& setting : settings) {
        const std::size_t line = reading.line(setting.name);
        text += row(setting.name, setting.of(reading.cfg), line == 0 ? "default" : path + ":" + std::to_string(line));
    }
    const ordered_json more = derived(reading.cfg);
    text += "\n" + row("hit INI", more["hit_ini_url"]);
    text += row("definition files", more["definition_files"][0]) + row("", more["definition_files"][1]);
    return text + row("snapshots", more["snapshots"]) + row("in service", more["active"]);
}

std::string shown_as_json(const Reading& reading) {
    ordered_json object;
    object["file"] = reading.path;
    if (!reading.trouble.empty() || reading.fatal != 0) {
        object["line"] = line_or_null(reading.fatal);
        object["error"] = reading.fatal == 0 ? reading.trouble : fatal_text;
    } else {
        for (const Setting& setting : settings) {
            ordered_json& entry = object["settings"][setting.name];
            entry["value"] = setting.of(reading.cfg);
            if (setting.number != nullptr) {
                entry["value"] = reading.cfg.*setting.number;
            }
            entry["line"] = line_or_null(reading.line(setting.name));
        }
        object["derived"] = derived(reading.cfg);
    }
    return dump(object);
}

}  // namespace zqu::config_tool
