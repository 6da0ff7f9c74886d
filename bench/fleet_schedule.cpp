#include "fleet_schedule.hpp"

#include <algorithm>

namespace zqu::fleet {

std::uint32_t Schedule::wait_after(bool exception, std::int64_t now) {
    constexpr std::int64_t spread = 2654435761;
    std::uint32_t wait = poll_.interval_s;
    if (exception) {
        wait >>= std::min<std::uint32_t>(failures_, 3);
        ++failures_;
    } else {
        failures_ = 0;
    }
    if (poll_.jitter_s != 0) {
        const std::int64_t seed = static_cast<std::int64_t>(pid_) * spread + now;
        wait += static_cast<std::uint32_t>(seed % static_cast<std::int64_t>(poll_.jitter_s));
    }
    return wait;
}

}  // namespace zqu::fleet
