// A fleet of daemons and what its mirror does to it, simulated in microseconds.
//
// Each daemon follows its Schedule by itself: the mirror answers everyone at once, however many ask, so that what is
// counted is what a mirror has to serve, not what an overloaded one makes of it. Nothing is random but what the seed
// gives: the same World has the same History on any machine and with any number of threads.
#pragma once

#include <cstdint>
#include <vector>

#include "fleet_schedule.hpp"

namespace zqu::fleet {

constexpr std::int64_t second_us = 1'000'000;

// From from_us, included, to to_us, excluded; empty as it stands.
struct Span {
    std::int64_t from_us = 0;
    std::int64_t to_us = 0;
    [[nodiscard]] bool holds(std::int64_t t_us) const { return from_us <= t_us && t_us < to_us; }
};

// What the mirror does. All times count from the start of the simulation.
struct Mirror {
    // A release is on it from then on; before the start: never. Each daemon's first check after that downloads it.
    std::int64_t release_us = -1;
    // It is down: connections are refused at once or, when silent, get no answer.
    Span outage;
    bool silent = false;
    // It names a release that every check downloads and cannot use: because the check refuses it (a wrong digest), or
    // because it ends the check in an exception.
    Span bad_release;
    bool bad_throws = false;
};

// Who starts when, and how long things take that are none of the schedule.
struct World {
    std::uint32_t daemons = 1;
    std::int64_t duration_us = 0;
    std::int64_t epoch_s = 1'800'000'000;  // the daemons' clock at the start of the simulation
    Poll poll;
    Mirror mirror;

    // Process ids are uniform in this range, ends included.
    std::int32_t pid_low = 1;
    std::int32_t pid_high = 1;
    // Daemons start in waves, a gap apart; each wave's are uniform over the spread.
    std::uint32_t waves = 1;
    std::int64_t wave_gap_us = 0;
    std::int64_t start_spread_us = second_us;

    // A check takes a time that is uniform in this range, ends included; one that downloads takes download_us more.
    std::int64_t check_low_us = 0;
    std::int64_t check_high_us = 0;
    std::int64_t download_us = 0;
    // Each second of a wait lasts so much longer: a sleep never ends early, and always a little late.
    std::int64_t oversleep_us = 0;

    std::uint64_t seed = 1;
};

// What happened, for each second of the simulation by its number.
struct History {
    std::vector<std::uint32_t> requests;   // answered: one a check, two more when it downloads
    std::vector<std::uint32_t> downloads;  // archives asked for
    std::vector<std::uint32_t> failed;     // checks begun in vain, for the mirror was down
    std::vector<std::int64_t> updated_us;  // when each daemon had the release, as far as it got it; unordered
};

// Lets the world run its duration, in so many threads (at least 1).
[[nodiscard]] History simulate(const World& world, unsigned threads);

}  // namespace zqu::fleet
