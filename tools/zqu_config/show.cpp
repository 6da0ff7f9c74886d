#include "show.hpp"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "keys.hpp"
#include "text.hpp"

namespace zqu::config_tool {

namespace {

using nlohmann::ordered_json;

std::string fatal_text() {
    return "a number without digits or beyond 64 bits: the daemon would end at its start";
}

std::string row(const std::string& name, const std::string& value, const std::string& source) {
    constexpr std::size_t width = 20;
    std::string line = name + std::string(width - std::min(width, name.size()), ' ') + tools::printable(value);
    return line + (source.empty() ? "" : "    (" + source + ")") + "\n";
}

std::string value_of(const zqu::Config& cfg, const Key& key) {
    return key.text != nullptr ? cfg.*key.text : std::to_string(cfg.*key.number);
}

ordered_json setting(const Effective& effective, const Key& key) {
    const std::size_t line = effective.line(key.name);
    ordered_json entry;
    if (key.text != nullptr) {
        entry["value"] = effective.cfg.*key.text;
    } else {
        entry["value"] = effective.cfg.*key.number;
    }
    entry["line"] = line == 0 ? ordered_json(nullptr) : ordered_json(line);
    return entry;
}

}  // namespace

std::string Show::as_text(const Reading& reading) {
    const std::string path = tools::printable(reading.path);
    const Effective& effective = reading.effective;
    if (!reading.trouble.empty()) {
        return path + ": error: " + reading.trouble + "\n";
    }
    if (effective.fatal != 0) {
        return path + ":" + std::to_string(effective.fatal) + ": error: " + fatal_text() + "\n";
    }
    cfg_ = effective.cfg;
    std::string text;
    for (const Key& key : keys) {
        const std::size_t line = effective.line(key.name);
        text += row(key.name, value_of(cfg_, key), line == 0 ? "default" : path + ":" + std::to_string(line));
    }
    text += "\n" + row("hit INI", client_.hit_ini_url(), "");
    text += row("definition files", "antivir-" + cfg_.flavor + ".def", "");
    text += row("", "aivsecon-" + cfg_.flavor + ".def", "");
    text += row("snapshots", cfg_.def_root + "/snapshots", "");
    return text + row("in service", cfg_.def_root + "/active", "");
}

std::string Show::as_json(const Reading& reading) {
    const Effective& effective = reading.effective;
    ordered_json object;
    object["file"] = reading.path;
    if (!reading.trouble.empty() || effective.fatal != 0) {
        object["line"] = effective.fatal == 0 ? ordered_json(nullptr) : ordered_json(effective.fatal);
        object["error"] = effective.fatal == 0 ? reading.trouble : fatal_text();
    } else {
        cfg_ = effective.cfg;
        for (const Key& key : keys) {
            object["settings"][key.name] = setting(effective, key);
        }
        ordered_json& derived = object["derived"];
        derived["hit_ini_url"] = client_.hit_ini_url();
        derived["definition_files"] = {"antivir-" + cfg_.flavor + ".def", "aivsecon-" + cfg_.flavor + ".def"};
        derived["snapshots"] = cfg_.def_root + "/snapshots";
        derived["active"] = cfg_.def_root + "/active";
    }
    return object.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace zqu::config_tool
