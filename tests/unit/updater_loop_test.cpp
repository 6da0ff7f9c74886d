#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <functional>

#include "expectations.hpp"
#include "http_server.hpp"
#include "support.hpp"
#include "updater.hpp"

namespace zqu::test {
namespace {

constexpr std::time_t first_check = 1'800'000'000;
using Waits = std::vector<std::uint32_t>;

// Runs the loop against a server that sees each cycle begin: it counts the sleeps between two requests of the hit INI
// and decides what that cycle will find.
class RunLoopTest : public LoggedTest {
protected:
    RunLoopTest() : cfg_(mirror_.config(dir_.path())) {
        clock_.now = first_check;
        clock_.pid = 4242;
        cfg_.poll_interval_s = 3;
        cfg_.poll_jitter_s = 0;
        mirror_.publish("good");
        EXPECT_TRUE(Updater(cfg_).run_once());
        static_cast<void>(log_.take());
        auto entries = mirror_.release_entries("throwing");
        entries[0] = {"antivir-v2.def", "", symbolic_link, 0777, "antivir-v2.def"};
        mirror_.publish("throwing", entries);
        mirror_.remove("antivir-v2-hit.ini");
        cfg_.mirror_base_url = server_.url();
        server_.http.set_mount_point("/", cfg_mount());
        server_.http.Get("/rhex/deffiles/def5-2/antivir-v2-hit.ini",
                         [this](const httplib::Request&, httplib::Response& response) { answer(response); });
    }

    // Runs one cycle for each element, which says whether it ends in an exception, and a last one that raises the
    // stop flag. Returns the seconds waited after each but the last.
    Waits waits_after(const std::vector<bool>& throwing) {
        throwing_ = throwing;
        Updater(cfg_).run_loop(stop_);
        return waits_;
    }

    // One cycle that stops the loop, and what it logs in between.
    void run_one_cycle(const Lines& between = {}) {
        EXPECT_EQ(waits_after({}), Waits{});
        EXPECT_EQ(log_.take(), loop_log(between));
    }

    void expect_times_of_the_first_check() const {
        EXPECT_EQ(read_file(cfg_.status_path),
                  status_text({"good", "engine 7", "good", "good", first_check, first_check, ""}));
    }

    void set_active(const std::string& version) const {
        fs::remove(cfg_.def_root + "/active");
        fs::create_symlink("snapshots/" + version, cfg_.def_root + "/active");
    }

    void answer(httplib::Response& response) {
        on_check();
        if (cycles_ > 0) {
            waits_.emplace_back(clock_.sleeps.size() - slept_);
        }
        slept_ = clock_.sleeps.size();
        const bool throws = cycles_ < throwing_.size() && throwing_[cycles_];
        if (cycles_ == throwing_.size()) {
            stop_ = 1;
        }
        ++cycles_;
        response.set_content(std::string("[Current]\ndefId=") + (throws ? "throwing" : "good") + "\n", "text/plain");
    }

    [[nodiscard]] std::string cfg_mount() const {
        const std::string file = mirror_.path("");
        return file.substr(0, file.size() - Config().mirror_subdir.size() - 1);
    }

    [[nodiscard]] Lines loop_log(const Lines& between = {}) const {
        Lines lines{"info zel_quorin_updater loop started (interval=" + std::to_string(cfg_.poll_interval_s) +
                    "s jitter=" + std::to_string(cfg_.poll_jitter_s) + "s)"};
        lines.insert(lines.end(), between.begin(), between.end());
        lines.emplace_back("info zel_quorin_updater loop stopped");
        return lines;
    }

    [[nodiscard]] std::string exception_line() const {
        return "err run_once exception: filesystem error: status: Too many levels of symbolic links [" + cfg_.def_root +
               "/snapshots/throwing/antivir-v2.def]";
    }

    Mirror mirror_;
    Config cfg_;
    FakeClock clock_;
    volatile std::sig_atomic_t stop_ = 0;
    std::function<void()> on_check = [] {};  // called during every cycle
    std::vector<bool> throwing_;
    std::size_t cycles_ = 0;
    std::size_t slept_ = 0;
    Waits waits_;
    Server server_;  // last: its thread is gone before what it uses
};

TEST_F(RunLoopTest, TimeOfACheckIsReadOnceAtItsStart) {
    on_check = [this] { clock_.now = *clock_.now + 7; };
    run_one_cycle();
    expect_times_of_the_first_check();
}

TEST_F(RunLoopTest, TimeOfAPublicationIsThatOfTheCheck) {
    fs::remove(cfg_.def_root + "/active");
    on_check = [this] { clock_.now = *clock_.now + 7; };
    run_one_cycle({"info published def snapshot good", "info def snapshot updated: none -> good"});
    expect_times_of_the_first_check();
}

TEST_F(RunLoopTest, VersionInServiceIsReadBeforeTheMirrorIsAsked) {
    set_active("former");
    on_check = [this] { set_active("good"); };
    run_one_cycle({"info published def snapshot good", "info def snapshot updated: former -> good"});
}

// Whether each cycle throws, and the seconds to wait after each.
struct WaitCase : Verdict {
    std::uint32_t interval;
    std::vector<bool> throwing;
    Waits waits;
};

class WaitTest : public RunLoopTest, public ::testing::WithParamInterface<WaitCase> {};

TEST_P(WaitTest, ShrinksWithExceptionsInARow) {
    cfg_.poll_interval_s = GetParam().interval;
    EXPECT_EQ(waits_after(GetParam().throwing), GetParam().waits);
    const auto& throwing = GetParam().throwing;
    const auto count = static_cast<std::size_t>(std::count(throwing.begin(), throwing.end(), true));
    EXPECT_EQ(log_.take(), loop_log(Lines(count, exception_line())));
}

const WaitCase wait_cases[] = {
    {"NoException", 0, {false, false, false}, {0, 0, 0}},
    {"FiveInARow", 600, {true, true, true, true, true}, {600, 300, 150, 75, 75}},
    {"GoodCycleResets", 600, {true, true, false, true, true}, {600, 300, 600, 600, 300}},
    {"IntervalOfOne", 1, {true, true, true}, {1, 0, 0}},
    {"BitsFallOff", 7, {true, true, true, true}, {7, 3, 1, 0}},
    {"LongRow", 16, std::vector<bool>(10, true), {16, 8, 4, 2, 2, 2, 2, 2, 2, 2}},
};
INSTANTIATE_TEST_SUITE_P(Case, WaitTest, ::testing::ValuesIn(wait_cases), ByVerdict());

TEST_F(RunLoopTest, ExceptionOfAnotherTypePassesThrough) {
    fs::remove(cfg_.def_root + "/active");
    clock_.on_flush = [] { throw 42; };
    EXPECT_THROW(static_cast<void>(waits_after({})), int);
    EXPECT_EQ(log_.take(), Lines{loop_log().front()});
}

// The seconds to wait by process id, time and settings.
struct JitterCase : Verdict {
    pid_t pid;
    std::time_t now;
    std::uint32_t interval, jitter, wait;
};

class JitterTest : public RunLoopTest, public ::testing::WithParamInterface<JitterCase> {};

TEST_P(JitterTest, ComesFromProcessIdAndTime) {
    clock_.pid = GetParam().pid;
    clock_.now = GetParam().now;
    cfg_.poll_interval_s = GetParam().interval;
    cfg_.poll_jitter_s = GetParam().jitter;
    EXPECT_EQ(waits_after({false}), Waits{GetParam().wait});
    EXPECT_EQ(log_.take(), loop_log());
}

const JitterCase jitter_cases[] = {
    // 4242 * 2654435761 + 1800000000 = 11261916498162, and 42 more than a multiple of 120
    {"AddsToTheInterval", 4242, first_check, 3, 120, 3 + 42},
    {"OfOneIsAlwaysZero", 4242, first_check, 3, 1, 3},
    {"SumWithTheIntervalWraps", 4242, first_check, 4294967295U, 120, 41},
    // 2^31 - 2 times the factor needs 63 bits, and the limit does not fit into 31:
    // 5700357386105064606 + 1834169999 is 5 more than a multiple of 2^32 - 1.
    {"IsComputedIn64Bits", 2147483646, 1'834'169'999, 0, 4294967295U, 5},
    // 1800000000 - 2654435761 is -854435761, and 1 less than a multiple of 120
    {"NegativeRemainderWraps", -1, first_check - 1, 6, 120, 4},
    {"ProcessIdIsWidenedWithItsSign", -1, first_check, 761 + 5, 1000, 5},
};
INSTANTIATE_TEST_SUITE_P(Case, JitterTest, ::testing::ValuesIn(jitter_cases), ByVerdict());

TEST_F(RunLoopTest, JitterIsComputedAgainAfterEveryCycle) {
    cfg_.poll_jitter_s = 120;
    clock_.on_sleep = [this](const timespec*, timespec*) {
        clock_.now = *clock_.now + 1;
        return 0;
    };
    // The 45 seconds slept in between move the remainder on by 45.
    EXPECT_EQ(waits_after({false, true}), (Waits{3 + 42, 3 + 42 + 45}));
    EXPECT_EQ(log_.take(), loop_log({exception_line()}));
}

TEST_F(RunLoopTest, JitterIsAddedToTheShortenedWait) {
    cfg_.poll_jitter_s = 120;
    cfg_.poll_interval_s = 8;
    EXPECT_EQ(waits_after({true, true}), (Waits{8 + 42, 4 + 42}));
    EXPECT_EQ(log_.take(), loop_log({exception_line(), exception_line()}));
}

TEST_F(RunLoopTest, InterruptedSliceIsResumedForTheTimeLeft) {
    cfg_.poll_interval_s = 1;
    clock_.on_sleep = [this](const timespec* request, timespec* remainder) {
        EXPECT_EQ(request, remainder);
        if (clock_.sleeps.size() > 2) {
            return 0;
        }
        remainder->tv_sec = 0;
        remainder->tv_nsec = 900'000'000 - static_cast<long>(clock_.sleeps.size()) * 100'000'000;
        errno = EINTR;
        return -1;
    };
    EXPECT_EQ(waits_after({false}), Waits{3});
    EXPECT_EQ(clock_.sleeps.at(0).tv_sec, 1);
    EXPECT_EQ(clock_.sleeps.at(1).tv_nsec, 800'000'000);
    EXPECT_EQ(clock_.sleeps.at(2).tv_nsec, 700'000'000);
    EXPECT_EQ(log_.take(), loop_log());
}

TEST_F(RunLoopTest, SliceThatFailsOtherwiseCountsAsDone) {
    clock_.on_sleep = [this](const timespec*, timespec*) {
        errno = clock_.sleeps.size() % 2 == 0 ? EINVAL : EFAULT;
        return -1;
    };
    EXPECT_EQ(waits_after({false}), Waits{3});
    EXPECT_EQ(log_.take(), loop_log());
}

}  // namespace
}  // namespace zqu::test
