// When a daemon of a simulated fleet makes its checks: the waits of Updater::run_loop, without running it.
//
// The daemon computes them inside its loop, between real checks and real sleeps, so they are repeated here, with the
// same widths of numbers; tests/bench/test_fleet_schedule.py holds them against a daemon's own. No function fails, and
// none keeps state outside its object: objects of different threads are independent.
#pragma once

#include <cstdint>

#include "config.hpp"

namespace zqu::fleet {

// The two settings that decide, in seconds, with the daemon's defaults.
struct Poll {
    std::uint32_t interval_s = zqu::Config().poll_interval_s;
    std::uint32_t jitter_s = zqu::Config().poll_jitter_s;
};

// One daemon's waits, in the order in which it makes them.
class Schedule {
public:
    Schedule(const Poll& poll, std::int32_t pid) : poll_(poll), pid_(pid) {}

    // The seconds that the daemon waits after a check that ended when its clock showed now, in seconds since the
    // Epoch. exception says whether the check ended in one, which shortens this wait and is counted for the next.
    [[nodiscard]] std::uint32_t wait_after(bool exception, std::int64_t now);

private:
    Poll poll_;
    std::int32_t pid_;
    std::uint32_t failures_ = 0;
};

}  // namespace zqu::fleet
