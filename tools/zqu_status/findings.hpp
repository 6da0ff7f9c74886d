// What is to be said of the facts: findings, and the verdict that follows from them.
//
// Pure functions; safe from any thread. None fails but for want of memory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "facts.hpp"
#include "monitoring.hpp"

namespace zqu::status_tool {

using tools::Limit;
using tools::Verdict;

// Names of all findings there can be. They are stable: other programs go by them.
inline constexpr std::array<const char*, 31> finding_names{
    "config_missing",     "config_unreadable",  "config_malformed",      "config_unusable",
    "active_missing",     "active_unreadable",  "active_no_link",        "active_dangling",
    "active_outside",     "directory_kind",     "directory_owner",       "directory_mode",
    "writable_by_others", "definition_missing", "definition_unreadable", "definition_not_regular",
    "definition_empty",   "definitions_old",    "publication_in_future", "snapshots_unreadable",
    "status_missing",     "status_unreadable",  "status_not_regular",    "status_too_long",
    "status_unfinished",  "status_invalid",     "status_schema",         "check_failed",
    "check_late",         "check_in_future",    "version_differs",
};

struct Finding {
    std::string name;  // one of finding_names
    Verdict verdict = Verdict::ok;
    std::string text;       // what is the matter; printable ASCII on one line, as shown() makes it
    std::string advice;     // what to do about it; likewise
    std::string command{};  // one line for a shell that repairs it; empty when none does
};

struct Limits {
    Limit definitions;  // time since the publication
    Limit check;        // time since the last check
};

// The limits that the command line sets; none where it is silent.
struct Wishes {
    std::optional<std::int64_t> warn_age;
    std::optional<std::int64_t> crit_age;
    std::optional<std::int64_t> warn_check;
    std::optional<std::int64_t> crit_check;
};

// The longest that two checks in a row can be apart by the settings, and what they leave open: the wait, with all of
// its jitter, and twice a check of three whole transfers and five minutes of work on the disk; twice because the status
// tells when a check began and is written when it ends. Without a bound on transfers (http_timeout_s 0 or above
// 2147483) one of five minutes is assumed.
[[nodiscard]] std::int64_t longest_between_checks(const Config& cfg);

// The limits in force: those wished for, else a warning for definitions older than two days and for checks further
// apart than the longest time; critical is twice the warning, or twice that default when the warning is off.
[[nodiscard]] Limits limits_for(const Wishes& wishes, const Config& cfg);

// All findings, the gravest first.
[[nodiscard]] std::vector<Finding> judge(const Facts& facts, const Limits& limits);

// The worst verdict among them; ok when there are none.
[[nodiscard]] Verdict verdict_of(const std::vector<Finding>& findings);

// Seconds since an event; 0 for one that the clock has not reached.
[[nodiscard]] std::int64_t age(std::int64_t now, std::int64_t event);

}  // namespace zqu::status_tool
