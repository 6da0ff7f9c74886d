#include "forms.hpp"
#include "text.hpp"

namespace zqu::status_tool {

using namespace tools;

namespace {

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
    return data;
}

}  // namespace

std::string nagios_form(const Report& report) {
    return nagios_line("DEFINITIONS", report.verdict, summary(report), performance_data(report));
}

}  // namespace zqu::status_tool
