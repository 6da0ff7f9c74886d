// What is to be said of the facts, and the forms that it is said in.
//
// Pure functions; safe from any thread. None fails but for lack of memory.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "facts.hpp"
#include "monitoring.hpp"

namespace zqu::status_tool {

// Begins the line of --nagios.
inline constexpr const char* nagios_service = "DEFINITIONS";

// What can be found. The names are stable: other programs go by them.
struct FindingKind {
    const char* name;
    tools::Verdict verdict;  // of limits and of writers it depends on the facts
    const char* text;        // what is the matter; %1 and %2 depend on the facts
    const char* advice;      // what to do about it
};
[[nodiscard]] const std::vector<FindingKind>& kinds();

// What a last_error means, and what to do about it; a text that the daemon does not write is said to be unknown.
[[nodiscard]] const char* advice_for(const std::string& last_error);

// All texts are printable ASCII on one line, as shown() makes them.
struct Matter {
    std::string name;
    tools::Verdict verdict = tools::Verdict::ok;
    std::string text;
    std::string advice;
    std::string command;  // one line for a shell that repairs it; empty when none does
};

struct Limits {
    tools::Limit definitions;  // time since the publication
    tools::Limit check;        // time since the last check
};

// The limits that the command line sets.
struct Wishes {
    std::optional<std::int64_t> warn_age;
    std::optional<std::int64_t> crit_age;
    std::optional<std::int64_t> warn_check;
    std::optional<std::int64_t> crit_check;
};

// The limits in force. Without wishes: a warning for definitions older than two days, and for checks further apart than
// the longest wait and twice the longest check (three transfers, five minutes of work on the disk); twice because the
// status says when a check began and is written when it ends. Critical is twice the warning, or twice its default when
// the warning is off.
[[nodiscard]] Limits limits_for(const Wishes& wishes, const Config& cfg);

// Seconds since an event; 0 for one that the clock has not reached.
[[nodiscard]] std::int64_t age(std::int64_t now, std::int64_t event);

struct Report {
    Facts facts;
    Limits limits;
    std::vector<Matter> findings;  // the gravest first
    tools::Verdict verdict = tools::Verdict::ok;
};

// asked_for: whether the unit was named on the command line.
[[nodiscard]] Report judge(Facts facts, const Limits& limits, bool asked_for);

// "active (running), enabled", or why that is not known; empty when there is nothing to say.
[[nodiscard]] std::string unit_text(const Unit& unit);

// Aligned lines for people, with colour by the sequences of ECMA-48; one JSON object of valid UTF-8; the line of a
// monitoring plugin; and metrics for the textfile collector of a node exporter. The manual page describes them.
[[nodiscard]] std::string text_form(const Report& report, bool colour);
[[nodiscard]] std::string json_form(const Report& report);
[[nodiscard]] std::string nagios_form(const Report& report);
[[nodiscard]] std::string prometheus_form(const Report& report);

}  // namespace zqu::status_tool
