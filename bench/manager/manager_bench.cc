// The cost of starting the library: the first devices() of a new manager
// builds the bus stack, opens every node once to filter it, and makes a
// device for each; a repeat only reads the list. Printed per device, for
// machines of 1, 8 and 32 corded devices, against what one device costs the
// platform at least: opening its node, and one command's round trip.

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Base/ErrorRecord.h"
#include "BenchStats.h"
#include "Manager/DeviceManager.h"
#include "SimHost.h"

namespace {

using bench::Clock;
using bench::median;
constexpr int kRounds = 9;
constexpr int kRepeats = 200;

double us_since(Clock::time_point start) {
    return bench::since<std::micro>(start);
}

struct Figures {
    double first_us;
    double repeat_us;
};

bool measure(int devices, Figures& out) {
    simtest::SimMachine sim(simtest::mice(devices, true));
    simtest::use_machine(sim);
    std::vector<double> first, repeat;
    for (int round = 0; round < kRounds; ++round) {
        auto manager = std::make_shared<devio::DeviceManager>();
        manager->config_set(5, true);
        auto start = Clock::now();
        const auto found = manager->devices();
        first.push_back(us_since(start));
        if (static_cast<int>(found.size()) != devices) {
            std::fprintf(stderr, "%d devices found of %d\n", static_cast<int>(found.size()),
                         devices);
            return false;
        }
        start = Clock::now();
        for (int i = 0; i < kRepeats; ++i) manager->devices();
        repeat.push_back(us_since(start) / kRepeats);
    }
    out = {median(first), median(repeat)};
    return true;
}

// Opening and closing one node, and one command answered, through the
// platform binding alone.
bool baseline(double& open_us, double& exchange_us) {
    simtest::SimMachine sim(simtest::mice(1, true));
    auto hw = sim.bus()->devices();
    if (hw.size() != 1) return false;
    std::vector<double> opens, exchanges;
    for (int i = 0; i < 50; ++i) {
        const auto start = Clock::now();
        if (!hw[0]->open()) return false;
        hw[0]->close();
        opens.push_back(us_since(start));
    }
    simtest::Host host(sim, hw[0]->path());
    if (!host.open()) return false;
    const simtest::Bytes ping{0x10, 0xFF, 0x00, 0x1A, 0, 0, 0};
    for (int i = 0; i < 50; ++i) {
        const auto start = Clock::now();
        if (host.exchange(ping).empty()) return false;
        exchanges.push_back(us_since(start));
    }
    open_us = median(opens);
    exchange_us = median(exchanges);
    return true;
}

}  // namespace

int main() {
    double open_us = 0, exchange_us = 0;
    if (!baseline(open_us, exchange_us)) {
        std::fprintf(stderr, "baseline failed\n");
        return 1;
    }
    std::printf("baseline: open+close one node %.1f us, one command round trip %.1f us\n", open_us,
                exchange_us);
    // The first call also starts the bus stack (threads, watches), a cost
    // that does not grow with the machine: what a device adds is measured
    // against the one-device machine.
    double first_at_1 = 0, added_at_8 = 0;
    for (int devices : {1, 8, 32}) {
        Figures f{};
        if (!measure(devices, f)) return 1;
        if (devices == 1) {
            first_at_1 = f.first_us;
            std::printf(
                " 1 device:  first devices() %.0f us (start of the stack included); repeat "
                "%.2f us (%.3f%% of the first)\n",
                f.first_us, f.repeat_us, 100.0 * f.repeat_us / f.first_us);
            continue;
        }
        const double added = (f.first_us - first_at_1) / (devices - 1);
        if (devices == 8) added_at_8 = added;
        std::printf(
            "%2d devices: first devices() %.0f us, %.1f us added per device (%.2fx open, "
            "%.2fx the cost per device at 8); repeat %.2f us (%.3f%% of the first)\n",
            devices, f.first_us, added, added / open_us, added / added_at_8, f.repeat_us,
            100.0 * f.repeat_us / f.first_us);
    }
    return 0;
}
