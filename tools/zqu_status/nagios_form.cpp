#include <algorithm>
#include <array>

#include "forms.hpp"
#include "text.hpp"

namespace zqu::status_tool {

namespace {

std::string bound(std::int64_t limit) {
    return limit > 0 ? std::to_string(limit) : "";
}

std::string performance(const char* name, std::int64_t seconds, const Limit& limit) {
    return std::string(" ") + name + "=" + std::to_string(seconds) + "s;" + bound(limit.warning) + ";" +
           bound(limit.critical) + ";0";
}

std::string summary(const Report& report) {
    const Facts& facts = report.facts;
    std::string text;
    for (const Finding& finding : report.findings) {
        text += (text.empty() ? "" : "; ") + finding.text;
    }
    if (!text.empty() || !facts.store.published) {
        return text;
    }
    return shown(facts.store.version) + " in service for " + duration_text(age(facts.now, *facts.store.published)) +
           ", last check " + duration_text(age(facts.now, facts.status.contents.last_check_epoch)) + " ago";
}

std::string performance_data(const Report& report) {
    const Facts& facts = report.facts;
    std::string data;
    if (facts.store.published) {
        data += performance("age", age(facts.now, *facts.store.published), report.limits.definitions);
    }
    if (facts.looked && facts.status.state == StatusState::valid) {
        data += performance("check_age", age(facts.now, facts.status.contents.last_check_epoch), report.limits.check);
    }
    return data.empty() ? "" : " |" + data.substr(1);
}

}  // namespace

std::string nagios_form(const Report& report) {
    static constexpr std::array<const char*, 4> words{"OK", "WARNING", "UNKNOWN", "CRITICAL"};
    return std::string("DEFINITIONS ") + words.at(static_cast<std::size_t>(report.verdict)) + " - " + summary(report) +
           performance_data(report) + "\n";
}

}  // namespace zqu::status_tool
