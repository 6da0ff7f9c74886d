#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <ostream>

#include "http_server.hpp"
#include "support.hpp"
#include "updater.hpp"

namespace zqu::test {
namespace {

using Lines = std::vector<std::string>;
using Waits = std::vector<std::uint32_t>;

// Runs the loop against a server that sees each cycle begin: it counts the sleeps between two requests of the hit INI
// and decides what that cycle will meet.
class RunLoopTest : public ::testing::Test {
protected:
    RunLoopTest() : cfg_(mirror_.config(dir_.path())) {
        clock_.now = 1'800'000'000;
        clock_.pid = 4242;
        cfg_.poll_interval_s = 3;
        cfg_.poll_jitter_s = 0;
        mirror_.publish("good");
        EXPECT_TRUE(Updater(cfg_).run_once());
        static_cast<void>(log_.take());
        auto entries = mirror_.release_entries("throwing");
        entries[0] = {"antivir-v2.def", "", 0120000, 0777, "antivir-v2.def"};
        mirror_.publish("throwing", entries);
        mirror_.remove("antivir-v2-hit.ini");
        cfg_.mirror_base_url = server_.url();
        server_.http.set_mount_point("/", cfg_mount());
        server_.http.Get("/rhex/deffiles/def5-2/antivir-v2-hit.ini",
                         [this](const httplib::Request&, httplib::Response& response) { answer(response); });
    }

    // Runs one cycle for each element, which says whether it ends in an exception, and a last one in whose midst the
    // stop flag is raised. Returns the seconds waited after each but the last.
    Waits waits_after(const std::vector<bool>& throwing) {
        throwing_ = throwing;
        Updater(cfg_).run_loop(stop_);
        return waits_;
    }

    void answer(httplib::Response& response) {
        on_check();
        if (cycles_ > 0) {
            waits_.push_back(static_cast<std::uint32_t>(clock_.sleeps.size() - slept_));
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
    TempDir dir_;
    Config cfg_;
    LogCapture log_;
    FakeClock clock_;
    volatile std::sig_atomic_t stop_ = 0;
    std::function<void()> on_check = [] {};  // called in the midst of every cycle
    std::vector<bool> throwing_;
    std::size_t cycles_ = 0;
    std::size_t slept_ = 0;
    Waits waits_;
    Server server_;  // last: its thread is gone before what it uses
};

TEST_F(RunLoopTest, TimeOfACheckIsReadOnceAtItsStart) {
    on_check = [this] { clock_.now = *clock_.now + 7; };
    static_cast<void>(waits_after({}));
    const std::string times = "  \"last_check_epoch\": 1800000000,\n  \"last_success_epoch\": 1800000000,\n";
    EXPECT_NE(read_file(cfg_.status_path).find(times), std::string::npos);
    static_cast<void>(log_.take());
}

TEST_F(RunLoopTest, TimeOfAPublicationIsThatOfTheCheck) {
    std::filesystem::remove(cfg_.def_root + "/active");
    on_check = [this] { clock_.now = *clock_.now + 7; };
    static_cast<void>(waits_after({}));
    const std::string times = "  \"last_check_epoch\": 1800000000,\n  \"last_success_epoch\": 1800000000,\n";
    EXPECT_NE(read_file(cfg_.status_path).find(times), std::string::npos);
    EXPECT_EQ(log_.take(), loop_log({"info published def snapshot good", "info def snapshot updated: none -> good"}));
}

TEST_F(RunLoopTest, VersionInServiceIsReadBeforeTheMirrorIsAsked) {
    std::filesystem::remove(cfg_.def_root + "/active");
    std::filesystem::create_symlink("snapshots/former", cfg_.def_root + "/active");
    on_check = [this] {
        std::filesystem::remove(cfg_.def_root + "/active");
        std::filesystem::create_symlink("snapshots/good", cfg_.def_root + "/active");
    };
    static_cast<void>(waits_after({}));
    EXPECT_EQ(log_.take(), loop_log({"info published def snapshot good", "info def snapshot updated: former -> good"}));
}

TEST_F(RunLoopTest, StopBeforeTheFirstCycleRunsNone) {
    stop_ = 1;
    EXPECT_EQ(waits_after({}), Waits{});
    EXPECT_EQ(cycles_, 0U);
    EXPECT_EQ(log_.take(), loop_log());
}

TEST_F(RunLoopTest, StopDuringACycleLetsItEndAndSleepsNoMore) {
    std::filesystem::remove(cfg_.status_path);
    EXPECT_EQ(waits_after({}), Waits{});
    EXPECT_EQ(cycles_, 1U);
    EXPECT_EQ(clock_.sleeps.size(), 0U);
    EXPECT_TRUE(exists(cfg_.status_path));
    EXPECT_EQ(log_.take(), loop_log());
}

TEST_F(RunLoopTest, StopDuringASliceSleepsNoFurtherOne) {
    clock_.on_sleep = [this](const timespec*, timespec*) {
        stop_ = clock_.sleeps.size() == 2 ? 1 : 0;
        return 0;
    };
    static_cast<void>(waits_after({false, false}));
    EXPECT_EQ(cycles_, 1U);
    EXPECT_EQ(clock_.sleeps.size(), 2U);
    EXPECT_EQ(log_.take(), loop_log());
}

TEST_F(RunLoopTest, StopDuringTheLastSliceRunsNoFurtherCycle) {
    clock_.on_sleep = [this](const timespec*, timespec*) {
        stop_ = clock_.sleeps.size() == 3 ? 1 : 0;
        return 0;
    };
    static_cast<void>(waits_after({false, false}));
    EXPECT_EQ(cycles_, 1U);
    EXPECT_EQ(clock_.sleeps.size(), 3U);
}

TEST_F(RunLoopTest, WaitIsTheIntervalInSlicesOfOneSecond) {
    EXPECT_EQ(waits_after({false, false}), (Waits{3, 3}));
    for (const auto& slice : clock_.sleeps) {
        EXPECT_EQ(slice.tv_sec, 1);
        EXPECT_EQ(slice.tv_nsec, 0);
    }
    EXPECT_EQ(log_.take(), loop_log());
}

TEST_F(RunLoopTest, IntervalAndJitterOfZeroSleepNotAtAll) {
    cfg_.poll_interval_s = 0;
    EXPECT_EQ(waits_after({false, false, false}), (Waits{0, 0, 0}));
    EXPECT_EQ(log_.take(), loop_log());
}

TEST_F(RunLoopTest, HandledFailureIsNoException) {
    mirror_.remove("antivir-v2-c-throwing.ini");
    EXPECT_EQ(waits_after({true, true, true}), (Waits{3, 3, 3}));
    const Lines log = log_.take();
    ASSERT_EQ(log.size(), 5U);
    EXPECT_EQ(log[1].substr(0, 8), "err GET ");
}

// Whether each cycle throws, and the seconds to wait after each.
struct WaitCase {
    const char* verdict;
    std::uint32_t interval;
    std::vector<bool> throwing;
    Waits waits;
};

std::ostream& operator<<(std::ostream& out, const WaitCase& c) {
    return out << c.verdict;
}

class WaitTest : public RunLoopTest, public ::testing::WithParamInterface<WaitCase> {};

TEST_P(WaitTest, ShrinksWithExceptionsInARow) {
    cfg_.poll_interval_s = GetParam().interval;
    EXPECT_EQ(waits_after(GetParam().throwing), GetParam().waits);
    Lines exceptions;
    for (const bool throwing : GetParam().throwing) {
        if (throwing) {
            exceptions.push_back(exception_line());
        }
    }
    EXPECT_EQ(log_.take(), loop_log(exceptions));
}

INSTANTIATE_TEST_SUITE_P(
    Case, WaitTest,
    ::testing::Values(WaitCase{"FiveInARow", 600, {true, true, true, true, true}, {600, 300, 150, 75, 75}},
                      WaitCase{"GoodCycleResets", 600, {true, true, false, true, true}, {600, 300, 600, 600, 300}},
                      WaitCase{"IntervalOfOne", 1, {true, true, true}, {1, 0, 0}},
                      WaitCase{"BitsFallOff", 7, {true, true, true, true}, {7, 3, 1, 0}},
                      WaitCase{"LongRow", 16, std::vector<bool>(10, true), {16, 8, 4, 2, 2, 2, 2, 2, 2, 2}}),
    [](const auto& param) { return param.param.verdict; });

TEST_F(RunLoopTest, ExceptionOfAnotherTypePassesThrough) {
    std::filesystem::remove(cfg_.def_root + "/active");
    clock_.on_flush = [] { throw 42; };
    EXPECT_THROW(static_cast<void>(waits_after({})), int);
    EXPECT_EQ(log_.take(), Lines{loop_log().front()});
}

TEST_F(RunLoopTest, JitterComesFromProcessIdAndTime) {
    cfg_.poll_jitter_s = 120;
    // 4242 * 2654435761 + 1800000000 = 11261916498162, and 42 more than a multiple of 120
    EXPECT_EQ(waits_after({false}), Waits{3 + 42});
    EXPECT_EQ(log_.take(), loop_log());
}

TEST_F(RunLoopTest, JitterIsComputedAfreshAfterEveryCycle) {
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
    static_cast<void>(log_.take());
}

TEST_F(RunLoopTest, JitterOfOneIsAlwaysZero) {
    cfg_.poll_jitter_s = 1;
    EXPECT_EQ(waits_after({false}), Waits{3});
    EXPECT_EQ(log_.take(), loop_log());
}

TEST_F(RunLoopTest, JitterIsComputedIn64Bits) {
    // 2^31 - 1 times the factor needs 63 bits, and the limit does not fit into 31.
    clock_.pid = 2147483647;
    cfg_.poll_jitter_s = 4294967295U;
    cfg_.poll_interval_s = 0;
    // 5700357388759500367 + 3474701533 is 5 more than a multiple of 2^32 - 1.
    clock_.now = 3'474'701'533;
    EXPECT_EQ(waits_after({false}), Waits{5});
    static_cast<void>(log_.take());
}

TEST_F(RunLoopTest, NegativeRemainderWrapsTheWait) {
    clock_.pid = 1;
    clock_.now = -2'654'435'761 - 2;
    cfg_.poll_jitter_s = 120;
    cfg_.poll_interval_s = 6;
    EXPECT_EQ(waits_after({false}), Waits{4});
    static_cast<void>(log_.take());
}

TEST_F(RunLoopTest, ProcessIdIsWidenedWithItsSign) {
    clock_.pid = -1;
    cfg_.poll_jitter_s = 1000;
    // 1800000000 - 2654435761 is -854435761
    cfg_.poll_interval_s = 761 + 5;
    EXPECT_EQ(waits_after({false}), Waits{5});
    static_cast<void>(log_.take());
}

TEST_F(RunLoopTest, SumOfIntervalAndJitterWrapsAround) {
    cfg_.poll_interval_s = 4294967295U;
    cfg_.poll_jitter_s = 120;
    EXPECT_EQ(waits_after({false}), Waits{41});
    EXPECT_EQ(log_.take(), loop_log());
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

TEST_F(RunLoopTest, InterruptionThatRaisesTheFlagStillFinishesTheSlice) {
    clock_.on_sleep = [this](const timespec*, timespec* remainder) {
        if (clock_.sleeps.size() > 1) {
            return 0;
        }
        stop_ = 1;
        remainder->tv_nsec = 1;
        errno = EINTR;
        return -1;
    };
    static_cast<void>(waits_after({false}));
    EXPECT_EQ(clock_.sleeps.size(), 2U);
    EXPECT_EQ(cycles_, 1U);
}

TEST_F(RunLoopTest, SliceThatFailsOtherwiseCountsAsDone) {
    clock_.on_sleep = [this](const timespec*, timespec*) {
        errno = clock_.sleeps.size() % 2 == 0 ? EINVAL : EFAULT;
        return -1;
    };
    EXPECT_EQ(waits_after({false}), Waits{3});
    static_cast<void>(log_.take());
}

}  // namespace
}  // namespace zqu::test
