// What is to be said of a configuration file.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zqu::config_tool {

// note: worth knowing. warning: the daemon runs, but not as somebody may think. error: updates, the status file or the
// daemon itself fail.
enum class Severity { note, warning, error };

// "note", "warning" or "error".
[[nodiscard]] const char* name_of(Severity severity);

struct Finding {
    Severity severity = Severity::note;
    std::size_t line = 0;  // 0: of the file as a whole, or of a default
    std::string text;      // one line, printable
};

// Findings in the order of their lines, those without a line last; on one line in the order they came.
class Findings {
public:
    void note(std::size_t line, const std::string& text) { add(Severity::note, line, text); }
    void warning(std::size_t line, const std::string& text) { add(Severity::warning, line, text); }
    void error(std::size_t line, const std::string& text) { add(Severity::error, line, text); }

    [[nodiscard]] const std::vector<Finding>& all() const { return all_; }
    [[nodiscard]] std::size_t count(Severity severity) const;

private:
    void add(Severity severity, std::size_t line, const std::string& text);

    std::vector<Finding> all_;
};

}  // namespace zqu::config_tool
