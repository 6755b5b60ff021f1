// The clock of log records against the system's monotonic clock, read on
// several threads while its rate is measured and refined.

#include "log_clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

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

}  // namespace
