// Verdicts, and the forms in which monitoring systems take them.
//
// Pure functions; they fail on lack of memory only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zqu::tools {

// In the order of their weight: the worst finding gives the verdict.
enum class Verdict { ok, warning, unknown, critical };

// The name, "ok", the word of monitoring plugins, "OK", and their exit status: 0, 1, 3 and 2 in the order above.
[[nodiscard]] const char* name_of(Verdict verdict);
[[nodiscard]] std::string plugin_word(Verdict verdict);
[[nodiscard]] int exit_status(Verdict verdict);

// Limits of one age, in seconds; 0 is none. The age has to exceed the limit.
struct Limit {
    std::int64_t warning = 0;
    std::int64_t critical = 0;

    // What an age of so many seconds is: ok, warning or critical.
    [[nodiscard]] Verdict judge(std::int64_t age) const;
};

// The performance data of an age: " <name>=<seconds>s;<warning>;<critical>;0".
[[nodiscard]] std::string performance(const std::string& name, std::int64_t seconds, const Limit& limit);

// The line of a monitoring plugin: "<service> OK - <summary>", and "|" with the performance data, unless it is empty.
// The summary must be as shown() makes it.
[[nodiscard]] std::string nagios_line(const std::string& service, Verdict verdict, const std::string& summary,
                                      const std::string& performance_data = "");

// An exposition in the text format of Prometheus. Every metric is a gauge; "zelquorin_" begins its name. Samples follow
// the head of their metric, have the common labels first, and no time of their own.
class Exposition {
public:
    using Labels = std::vector<std::pair<std::string, std::string>>;

    explicit Exposition(Labels common = {}) : common_(std::move(common)) {}

    void head(const std::string& name, const std::string& help);
    void sample(Labels labels, const std::string& value);

    // The metric <name> with one sample; nothing without a value.
    void gauge(const std::string& name, const std::string& help, std::optional<std::int64_t> value);

    // With one sample for each verdict: 1 for this one, 0 for the others.
    void verdict(const std::string& name, const std::string& help, Verdict verdict);

    // With one sample for each severity that has a limit; nothing without any.
    void limit(const std::string& name, const std::string& help, const Limit& limit);

    [[nodiscard]] const std::string& text() const { return text_; }

private:
    const Labels common_;
    std::string name_;
    std::string text_;
};

}  // namespace zqu::tools
