#include "fleet_model.hpp"

#include <algorithm>
#include <thread>

namespace zqu::fleet {
namespace {

__extension__ using Wide = unsigned __int128;

// splitmix64: a state that is a counter makes streams that begin anywhere.
class Random {
public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    // Uniform from low to high, both included.
    std::int64_t between(std::int64_t low, std::int64_t high) {
        const auto range = static_cast<std::uint64_t>(high - low) + 1;
        // cppcheck-suppress shiftTooManyBits ; it takes Wide for 64 bits
        return low + static_cast<std::int64_t>((Wide{next()} * range) >> 64);
    }

private:
    std::uint64_t next() {
        std::uint64_t z = state_ += 0x9E3779B97F4A7C15;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
        return z ^ (z >> 31);
    }

    std::uint64_t state_;
};

// When a connection that gets no answer asks again, and when it gives up, in seconds after the first time: with the
// default tcp_syn_retries of tcp(7), and no linear time-outs, which Linux has since 6.5.
constexpr std::int64_t asks_again_s[] = {1, 3, 7, 15, 31, 63};
constexpr std::int64_t gives_up_s = 127;

class Daemon {
public:
    Daemon(const World& world, std::uint32_t number, History& history)
        : world_(world),
          history_(history),
          random_(world.seed * 0xD1342543DE82EF95 + number * std::uint64_t{0x2545F4914F6CDD1D}),
          schedule_(world.poll, static_cast<std::int32_t>(random_.between(world.pid_low, world.pid_high))),
          now_us_(world.wave_gap_us * (number % world.waves) + random_.between(0, world.start_spread_us - 1)) {}

    void live() {
        while (now_us_ < world_.duration_us) {
            const bool exception = check();
            const std::uint32_t wait = schedule_.wait_after(exception, world_.epoch_s + now_us_ / second_us);
            now_us_ += wait * (second_us + world_.oversleep_us);
        }
    }

private:
    // Goes on to the check's end; returns whether that was an exception.
    bool check() {
        const Mirror& mirror = world_.mirror;
        if (mirror.outage.holds(now_us_) && !connect()) {
            return false;
        }
        count(history_.requests, 1);
        const bool bad = mirror.bad_release.holds(now_us_);
        const bool good = !updated_ && mirror.release_us >= 0 && now_us_ >= mirror.release_us;
        pass(random_.between(world_.check_low_us, world_.check_high_us));
        if (bad || good) {
            count(history_.requests, 2);
            count(history_.downloads, 1);
            pass(world_.download_us);
        }
        if (good && !bad) {
            updated_ = true;
            history_.updated_us.push_back(now_us_);
        }
        return bad && mirror.bad_throws;
    }

    // Tries to reach a mirror that is down, for as long as that takes; returns whether it came back in time.
    bool connect() {
        const Mirror& mirror = world_.mirror;
        count(history_.failed, 1);
        if (!mirror.silent) {
            pass(random_.between(world_.check_low_us, world_.check_high_us));
            return false;
        }
        const auto* again = std::find_if(std::begin(asks_again_s), std::end(asks_again_s), [&](std::int64_t after_s) {
            return now_us_ + after_s * second_us >= mirror.outage.to_us;
        });
        const bool reached = again != std::end(asks_again_s);
        pass((reached ? *again : gives_up_s) * second_us);
        return reached;
    }

    void pass(std::int64_t span_us) { now_us_ += span_us; }

    void count(std::vector<std::uint32_t>& counters, std::uint32_t number) const {
        const auto second = static_cast<std::size_t>(now_us_ / second_us);
        if (second < counters.size()) {
            counters[second] += number;
        }
    }

    const World& world_;
    History& history_;
    Random random_;
    Schedule schedule_;
    std::int64_t now_us_;
    bool updated_ = false;
};

History empty_history(const World& world) {
    const auto seconds = static_cast<std::size_t>((world.duration_us + second_us - 1) / second_us);
    const std::vector<std::uint32_t> zeros(seconds, 0);
    return {zeros, zeros, zeros, {}};
}

void add(std::vector<std::uint32_t>& sum, const std::vector<std::uint32_t>& other) {
    std::transform(sum.begin(), sum.end(), other.begin(), sum.begin(), std::plus<>());
}

}  // namespace

History simulate(const World& world, unsigned threads) {
    std::vector<History> parts(threads, empty_history(world));
    std::vector<std::thread> workers;
    for (unsigned part = 0; part < threads; ++part) {
        workers.emplace_back([&world, &history = parts[part], part, threads] {
            for (std::uint32_t number = part; number < world.daemons; number += threads) {
                Daemon(world, number, history).live();
            }
        });
    }
    for (auto& worker : workers) {
        worker.join();
    }
    History& history = parts.front();
    for (std::size_t part = 1; part < parts.size(); ++part) {
        add(history.requests, parts[part].requests);
        add(history.downloads, parts[part].downloads);
        add(history.failed, parts[part].failed);
        const auto& updated = parts[part].updated_us;
        history.updated_us.insert(history.updated_us.end(), updated.begin(), updated.end());
    }
    return history;
}

}  // namespace zqu::fleet
