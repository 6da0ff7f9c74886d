// A staged rollout: beside the hit INI, up to three stage files, "<hit INI>.1", ".10" and ".50", name the candidate for
// the first 1, 10 and 50 per cent of the gateways. The web server gives each gateway the file of its group, and the hit
// INI where that is missing.
//
// Stage files come from the lowest upwards and go from the highest downwards, each on disk before the next. So a run
// that is killed leaves a lower stage, and never one without those below. Stage files that name the current release are
// what is left of a killed run that has ended a rollout.
//
// For one thread. What fails throws std::system_error, unless a function says more.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "options.hpp"
#include "run.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

inline constexpr std::array<int, 3> stages{1, 10, 50};

[[nodiscard]] std::string stage_name(const std::string& flavor, int percent);

// The role of a release that this percentage of the gateways gets, in words: "current" for 0.
[[nodiscard]] std::string role_of(int percent);

// A stage file that belongs to no rollout.
struct StageFault {
    std::string name;
    std::string what;  // is wrong with it
    std::string id;    // that it names; empty for none
};

// What the stage files of options.flavor say.
struct Rollout {
    std::string id;            // the candidate
    int percent = 0;           // the stage; 0 when there is no rollout
    std::int64_t since_s = 0;  // when that stage and the rollout began, in seconds since the Unix epoch
    std::int64_t start_s = 0;
    std::vector<std::string> leftovers;  // the files that name the current release, the highest first
    std::vector<StageFault> faults;      // the highest first

    // "<id> is the candidate for <n> per cent since <time>".
    [[nodiscard]] std::string text() const;
};

// Takes no lock. Reads the files as clients do; what they hold is hostile.
[[nodiscard]] Rollout rollout_of(const Options& options);

// The same. Throws std::runtime_error, with what to do, when a stage file belongs to no rollout.
[[nodiscard]] Rollout sound_rollout(const Options& options);

// Gives the grace of prune to a release that stops being a candidate. Best effort, as for one that stops being current.
void start_grace(const Options& options, const std::string& id);

// For all functions below, the caller must have the mirror's lock.

// Removes what a killed run has left of a rollout.
void remove_leftover_stages(const Options& options);

// Throws std::runtime_error, with what to do, when the release must not get to gateways now: because of a rollout of
// another one without options.replace, or because there is nothing that options.percent could go back to. A rollout of
// the same release at a lower stage is what a killed run has begun.
void require_turn(const Options& options, const std::string& id);

// Gives the release, whose files are on disk, to gateways: makes it current, or with options.percent the candidate.
// Ends its hold, and before that the rollout of another release. Throws std::runtime_error when it is a candidate, but
// not for so many.
void give_out(const Options& options, const std::string& id, Workplace& place, Run& run);

}  // namespace zqu::mirror_tool
