// The clock of log records against the system's monotonic clock, read on
// several threads while its rate is measured and refined.

#include "log_clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "log_platform.h"

namespace {

using namespace std::chrono_literals;
using devio::xlog::monotonicMicros;
using devio::xlog::systemMonotonicMicros;

bool machineKeepsTimeByCounter() {
    std::ifstream source("/sys/devices/system/clocksource/clocksource0/current_clocksource");
    std::string name;
    if (!(source >> name) || name != "tsc") return false;
    std::ifstream cpuinfo("/proc/cpuinfo");
    bool constant = false, nonstop = false;
    for (std::string word; cpuinfo >> word;) {
        constant = constant || word == "constant_tsc";
        nonstop = nonstop || word == "nonstop_tsc";
    }
    return constant && nonstop;
}

TEST(LogClockTest, FollowsTheMonotonicClockOnEveryThreadAndNeverGoesBack) {
    devio::xlog::refineClock();
    std::this_thread::sleep_for(80ms);
    devio::xlog::refineClock();
#if defined(__x86_64__)
    if (machineKeepsTimeByCounter()) {
        EXPECT_TRUE(devio::xlog::clockCountsTicks()) << "the counter was not taken up";
    }
#endif

    // A reading between two readings of the system clock must lie between
    // them, give or take the error of the measured rate: a few microseconds
    // after a second; a rate off by one part in ten thousand would be 150.
    constexpr uint64_t tolerance = 100;
    std::atomic<bool> stop{false};
    std::vector<std::string> failures(3);
    std::vector<long> compared(3, 0);
    std::vector<std::thread> readers;
    for (size_t t = 0; t < failures.size(); ++t) {
        readers.emplace_back([&, t] {
            uint64_t last = 0;
            while (!stop.load() && failures[t].empty()) {
                uint64_t before = systemMonotonicMicros();
                uint64_t reading = monotonicMicros();
                uint64_t after = systemMonotonicMicros();
                if (reading < last)
                    failures[t] =
                        "went back from " + std::to_string(last) + " to " + std::to_string(reading);
                last = reading;
                // A thread preempted between the readings proves nothing.
                if (after - before > 20) continue;
                ++compared[t];
                if (reading + tolerance < before || reading > after + tolerance)
                    failures[t] = std::to_string(reading) + " outside [" + std::to_string(before) +
                                  ", " + std::to_string(after) + "]";
            }
        });
    }
    // Long enough for the rate to be refined once while the readers run.
    auto end = std::chrono::steady_clock::now() + 1500ms;
    while (std::chrono::steady_clock::now() < end) {
        devio::xlog::refineClock();
        std::this_thread::sleep_for(50ms);
    }
    stop.store(true);
    for (auto& th : readers) th.join();
    for (size_t t = 0; t < failures.size(); ++t) {
        EXPECT_EQ(failures[t], "") << "thread " << t;
        EXPECT_GT(compared[t], 100) << "thread " << t << " was never between two close readings";
    }
}

// A suspend to idle, simulated: the counter runs on 30 s while the
// monotonic clock stands still, and the wall clock moves on 30 s. Also a
// counter that goes back, as after a reset.
TEST(LogClockTest, AfterASuspendReadingsAndDatesAreBackAtTheNextRefinement) {
    using devio::xlog::anchorBoundMicros;
    devio::xlog::refineClock();
    std::this_thread::sleep_for(80ms);
    devio::xlog::refineClock();
    if (!devio::xlog::clockCountsTicks()) GTEST_SKIP() << "the counter is not used here";

    uint64_t ticks0 = devio::XLogPlatformSpecific::readCounter();
    uint64_t micros0 = systemMonotonicMicros();
    std::this_thread::sleep_for(100ms);
    double ticksPerMicro =
        static_cast<double>(devio::XLogPlatformSpecific::readCounter() - ticks0) /
        static_cast<double>(systemMonotonicMicros() - micros0);
    constexpr int64_t suspend = 30'000'000;
    const auto suspendTicks = static_cast<int64_t>(ticksPerMicro * suspend);

    // Within the bound of the system clock, read around it.
    auto near = [](uint64_t reading) {
        for (int tries = 0; tries < 100; ++tries) {
            uint64_t before = systemMonotonicMicros();
            uint64_t value = reading == 0 ? monotonicMicros() : reading;
            uint64_t after = systemMonotonicMicros();
            if (after - before > 20) continue;
            return value + anchorBoundMicros >= before && value <= after + anchorBoundMicros;
        }
        return false;
    };
    for (int64_t shift : {suspendTicks, -suspendTicks}) {
        SCOPED_TRACE(shift > 0 ? "counter ahead" : "counter behind");
        int64_t offset = devio::xlog::wallClockOffset();
        devio::xlog::shiftClocksForTest(shift, shift > 0 ? suspend : 0);
        uint64_t ahead = monotonicMicros();
        if (shift > 0) {
            EXPECT_GT(ahead, systemMonotonicMicros() + suspend - 1'000'000);
        }
        devio::xlog::refineClock();
        // At once, and on a thread that has read the wrong time already.
        EXPECT_TRUE(near(0)) << monotonicMicros() - systemMonotonicMicros();
        int64_t moved = devio::xlog::wallClockOffset() - offset;
        EXPECT_LE(std::abs(moved - (shift > 0 ? suspend : 0)),
                  static_cast<int64_t>(anchorBoundMicros));
        // The counter is taken up again, at the rate it had.
        std::this_thread::sleep_for(80ms);
        devio::xlog::refineClock();
        EXPECT_TRUE(devio::xlog::clockCountsTicks());
        EXPECT_TRUE(near(0));
        devio::xlog::shiftClocksForTest(0, 0);
        devio::xlog::refineClock();
        std::this_thread::sleep_for(80ms);
        devio::xlog::refineClock();
    }
}

}  // namespace
