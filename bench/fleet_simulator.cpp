// zqu_fleet_simulator: simulates a fleet of daemons and prints what its mirror has to serve, or the waits of single
// daemons, as JSON.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fleet_model.hpp"
#include "fleet_rates.hpp"
#include "fleet_schedule.hpp"

namespace {

using nlohmann::json;
using zqu::fleet::curve;
using zqu::fleet::History;
using zqu::fleet::percentile;
using zqu::fleet::Poll;
using zqu::fleet::rates;
using zqu::fleet::Schedule;
using zqu::fleet::second_us;
using zqu::fleet::Span;
using zqu::fleet::World;

using Pair = std::pair<double, double>;

constexpr double longest_days = 366;

// Times as the command line gives them, in seconds, and what to print.
struct Options {
    World world;
    std::pair<std::int32_t, std::int32_t> pids{1, 1};
    Pair check_s{0, 0};
    double days = 1;
    double start_spread_s = 1;
    double wave_gap_s = 0;
    double download_s = 0;
    double release_s = -1;
    Pair outage_s{0, 0};
    Pair bad_release_s{0, 0};
    std::vector<std::size_t> windows;  // from, to, from, to, ...
    std::vector<std::size_t> curves;   // from, to, bin, from, to, bin, ...
    unsigned threads = std::max(1U, std::thread::hardware_concurrency());
};

// Throws for what is no time within the longest simulation; NaN is none either.
std::int64_t microseconds(double seconds) {
    if (!(seconds >= 0 && seconds <= longest_days * 86400)) {
        throw std::invalid_argument("a time is negative or beyond the longest simulation");
    }
    return std::llround(seconds * static_cast<double>(second_us));
}

Span span_of(const Pair& seconds) {
    return {microseconds(seconds.first), microseconds(seconds.second)};
}

// A wait may shrink to an eighth or wrap around to nothing: with checks that take no time either, no time would pass.
void require_progress(const World& world) {
    const Poll& poll = world.poll;
    const bool waits = poll.interval_s >= 8 && poll.interval_s + std::uint64_t{poll.jitter_s} <= UINT32_MAX;
    if (!waits && world.check_high_us < 1) {
        throw std::invalid_argument("neither waits nor checks need take any time");
    }
}

World world_of(const Options& options) {
    World world = options.world;
    world.duration_us = microseconds(options.days * 86400);
    world.pid_low = options.pids.first;
    world.pid_high = options.pids.second;
    world.start_spread_us = microseconds(options.start_spread_s);
    world.wave_gap_us = microseconds(options.wave_gap_s);
    world.check_low_us = microseconds(options.check_s.first);
    world.check_high_us = microseconds(options.check_s.second);
    world.download_us = microseconds(options.download_s);
    world.mirror.release_us = options.release_s < 0 ? -1 : microseconds(options.release_s);
    world.mirror.outage = span_of(options.outage_s);
    world.mirror.bad_release = span_of(options.bad_release_s);
    const auto& [outage, bad] = std::pair(world.mirror.outage, world.mirror.bad_release);
    if (world.pid_low > world.pid_high || world.check_low_us > world.check_high_us || world.start_spread_us < 1 ||
        outage.from_us > outage.to_us || bad.from_us > bad.to_us) {
        throw std::invalid_argument("a range is empty");
    }
    require_progress(world);
    return world;
}

// Seconds after the release until that share of the whole fleet had it; null when it never came to that.
json reached_after(const World& world, const History& history, double share) {
    const auto count = static_cast<std::size_t>(std::ceil(share * world.daemons));
    if (count > history.updated_us.size()) {
        return nullptr;
    }
    auto times = history.updated_us;
    const double of_those = static_cast<double>(count) / static_cast<double>(times.size());
    return static_cast<double>(percentile(times, of_those) - world.mirror.release_us) / second_us;
}

json release_of(const World& world, const History& history) {
    json result{{"updated", history.updated_us.size()}};
    for (const auto& [name, share] :
         std::map<std::string, double>{{"50", 0.5}, {"90", 0.9}, {"99", 0.99}, {"100", 1}}) {
        result[name] = reached_after(world, history, share);
    }
    return result;
}

void check_span(const std::vector<std::uint32_t>& counters, std::size_t from_s, std::size_t to_s) {
    if (from_s >= to_s || to_s > counters.size()) {
        throw std::invalid_argument("a span is empty or ends after the simulation");
    }
}

void require_whole(const std::vector<std::size_t>& numbers, std::size_t of_each, const char* option) {
    if (numbers.size() % of_each != 0) {
        throw std::invalid_argument(std::string(option) + " takes " + std::to_string(of_each) + " numbers for each");
    }
}

// At least a second, and no more than there are.
std::size_t bin_of(std::size_t seconds, const std::vector<std::uint32_t>& counters) {
    return std::clamp<std::size_t>(seconds, 1, counters.size());
}

json counted(const std::vector<std::uint32_t>& counters, const Options& options) {
    json result{{"all", rates(counters, 0, counters.size())}};
    const auto& spans = options.windows;
    for (std::size_t i = 0; i + 1 < spans.size(); i += 2) {
        check_span(counters, spans[i], spans[i + 1]);
        result["windows"].push_back(rates(counters, spans[i], spans[i + 1]));
    }
    const auto& curves = options.curves;
    for (std::size_t i = 0; i + 2 < curves.size(); i += 3) {
        check_span(counters, curves[i], curves[i + 1]);
        result["curves"].push_back(curve(counters, curves[i], curves[i + 1], bin_of(curves[i + 2], counters)));
    }
    return result;
}

void print(const json& result) {
    if (std::puts(result.dump().c_str()) == EOF || std::fflush(stdout) != 0) {
        throw std::runtime_error("the result cannot be printed");
    }
}

void run(const Options& options) {
    const World world = world_of(options);
    require_whole(options.windows, 2, "--windows");
    require_whole(options.curves, 3, "--curves");
    const History history = simulate(world, options.threads);
    json result{{"daemons", world.daemons}, {"seconds", history.requests.size()}};
    result["requests"] = counted(history.requests, options);
    result["downloads"] = counted(history.downloads, options);
    result["failed"] = counted(history.failed, options);
    if (world.mirror.release_us >= 0) {
        result["release"] = release_of(world, history);
    }
    print(result);
}

// Reads lines "<process id> <clock at the check's end> ok|exception" and prints the waits that follow, in their order.
void print_waits(const Poll& poll) {
    std::map<std::int32_t, Schedule> daemons;
    json waits = json::array();
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::int32_t pid = 0;
        std::int64_t now = 0;
        std::string outcome;
        if (!(words >> pid >> now >> outcome) || (outcome != "ok" && outcome != "exception")) {
            throw std::invalid_argument("not a check: " + line);
        }
        Schedule& schedule = daemons.try_emplace(pid, poll, pid).first->second;
        waits.push_back(schedule.wait_after(outcome == "exception", now));
    }
    print(waits);
}

void add_poll(CLI::App& command, Poll& poll) {
    command.add_option("--interval", poll.interval_s, "poll_interval_s")->capture_default_str();
    command.add_option("--jitter", poll.jitter_s, "poll_jitter_s")->capture_default_str();
}

void add_fleet(CLI::App& command, Options& options) {
    World& world = options.world;
    command.add_option("--daemons", world.daemons, "How many")->required()->check(CLI::Range(1U, 100000000U));
    command.add_option("--days", options.days, "How long")->required()->check(CLI::Range(0.0001, longest_days));
    command.add_option("--epoch", world.epoch_s, "The daemons' clock at the start")
        ->capture_default_str()
        ->check(CLI::Range(std::int64_t{0}, std::int64_t{UINT32_MAX}));
    command.add_option("--pids", options.pids, "Range of the process ids")->capture_default_str();
    command.add_option("--start-spread", options.start_spread_s, "Seconds over which a wave starts");
    command.add_option("--waves", world.waves, "Waves in which the daemons start")->check(CLI::Range(1U, 100000U));
    command.add_option("--wave-gap", options.wave_gap_s, "Seconds from wave to wave");
    command.add_option("--check", options.check_s, "Range of the seconds that a check takes");
    command.add_option("--download", options.download_s, "Seconds more for one that downloads");
    command.add_option("--oversleep-us", world.oversleep_us, "Microseconds more for each second of a wait")
        ->check(CLI::Range(std::int64_t{0}, second_us));
    command.add_option("--seed", world.seed, "Another one gives another fleet")->capture_default_str();
    command.add_option("--threads", options.threads, "Threads to compute with")->check(CLI::Range(1U, 1024U));
}

void add_events(CLI::App& command, Options& options) {
    auto& mirror = options.world.mirror;
    command.add_option("--release", options.release_s, "Second in which a release comes");
    command.add_option("--outage", options.outage_s, "Seconds from which to which the mirror is down");
    command.add_flag("--silent", mirror.silent, "It does not answer then, rather than refuse");
    command.add_option("--bad-release", options.bad_release_s, "Seconds from which to which it names a bad release");
    command.add_flag("--bad-throws", mirror.bad_throws, "Which ends checks in an exception");
    command.add_option("--windows", options.windows, "First and last second of each span to tell the rates of");
    command.add_option("--curves", options.curves, "First and last second and seconds a bin of each curve");
}

int parse_and_carry_out(int argc, char** argv) {
    Options options;
    CLI::App app("Simulates a fleet of daemons and prints what its mirror has to serve, as JSON.");
    app.require_subcommand(1);
    CLI::App* fleet = app.add_subcommand("run", "Simulate a fleet");
    add_poll(*fleet, options.world.poll);
    add_fleet(*fleet, options);
    add_events(*fleet, options);
    CLI::App* waits = app.add_subcommand("waits", "The waits after checks that standard input tells of");
    add_poll(*waits, options.world.poll);
    CLI11_PARSE(app, argc, argv);
    if (waits->parsed()) {
        print_waits(options.world.poll);
    } else {
        run(options);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return parse_and_carry_out(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "zqu_fleet_simulator: %s\n", e.what());
        return 1;
    }
}
