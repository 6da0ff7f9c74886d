#include <algorithm>
#include <array>
#include <cctype>

#include "report.hpp"
#include "text.hpp"

namespace zqu::status_tool {

using namespace tools;

namespace {

constexpr std::size_t label_width = 13;
constexpr std::size_t value_width = 87;

std::string word(Verdict verdict, bool colour) {
    static constexpr std::array<const char*, 4> colours{"\033[32m", "\033[33m", "\033[35m", "\033[31m"};
    std::string name = name_of(verdict);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return colour ? colours.at(static_cast<std::size_t>(verdict)) + name + "\033[0m" : name;
}

std::string line(const std::string& label, const std::string& value) {
    return label + std::string(label_width - label.size(), ' ') + value + "\n";
}

// Prose, broken at blanks.
std::string paragraph(const std::string& prose) {
    std::string text;
    for (std::size_t begin = 0; begin < prose.size();) {
        const std::size_t blank = prose.rfind(' ', begin + value_width);
        const bool rest = prose.size() - begin <= value_width || blank == std::string::npos || blank <= begin;
        const std::size_t end = rest ? prose.size() : blank;
        text += line("", prose.substr(begin, end - begin));
        begin = end + 1;
    }
    return text;
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

}  // namespace zqu::status_tool
