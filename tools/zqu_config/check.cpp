#include "check.hpp"

#include <nlohmann/json.hpp>

#include "check_lines.hpp"
#include "check_paths.hpp"
#include "check_values.hpp"
#include "online.hpp"
#include "reading.hpp"
#include "text.hpp"
#include "user.hpp"

namespace zqu::config_tool {

namespace {

using nlohmann::ordered_json;

constexpr Severity severities[] = {Severity::error, Severity::warning, Severity::note};

// "1 error, 2 warnings", or "nothing found".
std::string summary(const Findings& findings) {
    std::string text;
    for (const Severity severity : severities) {
        if (const std::size_t count = findings.count(severity)) {
            text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + name_of(severity);
            text += count == 1 ? "" : "s";
        }
    }
    return text.empty() ? "nothing found" : text;
}

}  // namespace

Findings check(const CheckOptions& options) {
    const User user = choose_user(options.user);
    const Reading reading = read_configuration(options.path);
    Findings findings;
    if (!reading.trouble.empty()) {
        findings.error(0, reading.trouble);
        return findings;
    }
    check_lines(reading.lines, findings);
    if (reading.effective.fatal != 0) {
        return findings;
    }
    check_values(reading.effective, findings);
    if (!user.remark.empty()) {
        findings.note(0, user.remark);
    }
    check_paths(reading, user, findings);
    if (options.online) {
        check_online(reading.effective, user, options.timeout_s, findings);
    }
    return findings;
}

std::string as_text(const std::string& path, const Findings& findings) {
    const std::string file = tools::printable(path);
    std::string text;
    for (const Finding& finding : findings.all()) {
        const std::string line = finding.line == 0 ? "" : ":" + std::to_string(finding.line);
        text += file + line + ": " + name_of(finding.severity) + ": " + finding.text + "\n";
    }
    return text + file + ": " + summary(findings) + "\n";
}

std::string as_json(const std::string& path, const Findings& findings) {
    ordered_json object;
    object["file"] = path;
    for (const Severity severity : severities) {
        object[std::string(name_of(severity)) + "s"] = findings.count(severity);
    }
    ordered_json& list = object["findings"] = ordered_json::array();
    for (const Finding& finding : findings.all()) {
        const ordered_json line = finding.line == 0 ? ordered_json(nullptr) : ordered_json(finding.line);
        list.push_back({{"line", line}, {"severity", name_of(finding.severity)}, {"text", finding.text}});
    }
    return object.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace zqu::config_tool
