#include "finding.hpp"

#include <algorithm>

namespace zqu::config_tool {

const char* name_of(Severity severity) {
    static constexpr const char* names[] = {"note", "warning", "error"};
    return names[static_cast<std::size_t>(severity)];
}

std::size_t Findings::count(Severity severity) const {
    return static_cast<std::size_t>(std::count_if(
        all_.begin(), all_.end(), [severity](const Finding& finding) { return finding.severity == severity; }));
}

void Findings::add(Severity severity, std::size_t line, const std::string& text) {
    // The largest number that there is comes out of subtracting one from a line 0.
    const auto later = [](const Finding& a, const Finding& b) { return a.line - 1 < b.line - 1; };
    const Finding finding{severity, line, text};
    all_.insert(std::upper_bound(all_.begin(), all_.end(), finding, later), finding);
}

}  // namespace zqu::config_tool
