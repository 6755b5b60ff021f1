// The enumeration of a receiver: how many reports it sends and how long it
// takes, over a simulated link whose every answer takes 8 ms. Against it,
// measured in the same run: one register round trip, and the fewest
// reports the enumeration can do with: on a receiver whose notifications
// are off, reading and writing register 0, reading the count of paired
// devices and asking for their arrivals (4); once they are on, the last
// two (2).

#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

#include "Base/Subscriber.h"
#include "BenchStats.h"
#include "Bus/Braid/BraidBus.h"
#include "Bus/Combiner/CombinerBus.h"
#include "SimHost.h"

namespace {

using bench::Clock;
using bench::median;
constexpr int kRounds = 9;
constexpr int kLinkMs = 8;
constexpr int kFirstMinimum = 4;
constexpr int kRepeatMinimum = 2;

double ms_since(Clock::time_point start) {
    return bench::since<std::milli>(start);
}

// Every report that reached the receiver's hardware.
struct Sent : devio::Subscriber<devio::IHardwareDevice::Write> {
    std::atomic<int> reports{0};
    void onWrite(std::vector<devio::Byte> report, devio::ErrorCode err, unsigned) override {
        if (!report.empty() && err == devio::Success) ++reports;
    }
};

const char* const kMachine = R"({"receivers": [{"id": "dongle", "pid": "0xA101", "devices": [
  {"id": "d1", "qid": "0x4B01"}, {"id": "d2", "qid": "0x4B02"}, {"id": "d3", "qid": "0x4B03"},
  {"id": "d4", "qid": "0x4B04"}, {"id": "d5", "qid": "0x4B05"}, {"id": "d6", "qid": "0x4B06"}]}]})";

}  // namespace

int main() {
    ::setenv("DEVIO_LOGGINGLEVEL", "1", 0);
    simtest::SimMachine sim(kMachine);
    auto stack =
        std::make_shared<devio::CombinerBus>(sim.bus(), std::weak_ptr<devio::IDeviceManager>());
    std::shared_ptr<devio::IHardwareDevice> hw;
    for (const auto& d : stack->devices()) {
        if (d->pid() == 0xA101) hw = d;
    }
    if (!hw ||
        sim.command("fault dongle delay " + std::to_string(kLinkMs) + " on").rfind("ok", 0)) {
        std::fprintf(stderr, "no receiver\n");
        return 1;
    }
    Sent sent;
    if (!sent.subscribe(hw, devio::DeliveryDirect)) return 1;

    std::vector<double> first_ms, repeat_ms, rtt_ms;
    int first_reports = 0, repeat_reports = 0;
    for (int round = 0; round < kRounds; ++round) {
        // Another program clears register 0: the new bus must set it again.
        sim.command("overwrite-flags dongle");
        auto bus = std::make_shared<devio::BraidBus>(hw, nullptr, 6, 4);
        bus->initDevice(nullptr);

        const int before_first = sent.reports;
        auto start = Clock::now();
        const auto found = bus->devices();
        first_ms.push_back(ms_since(start));
        first_reports = sent.reports - before_first;

        const int before_repeat = sent.reports;
        start = Clock::now();
        const auto again = bus->devices();
        repeat_ms.push_back(ms_since(start));
        repeat_reports = sent.reports - before_repeat;
        if (found.size() != 6 || again.size() != 6) {
            std::fprintf(stderr, "found %zu and %zu devices of 6\n", found.size(), again.size());
            return 1;
        }

        for (int i = 0; i < 5; ++i) {
            std::vector<devio::Byte> answer;
            start = Clock::now();
            if (!bus->sendSynchronousCommand({0x10, 0xFF, 0x81, 0x02, 0, 0, 0}, answer, 0, {}))
                return 1;
            rtt_ms.push_back(ms_since(start));
        }
        bus->uninitDevice();
    }
    const double rtt = median(rtt_ms);
    std::printf(
        "receiver with 6 paired devices, every answer %d ms late; register round trip "
        "%.2f ms (median of %zu)\n",
        kLinkMs, rtt, rtt_ms.size());
    std::printf(
        "first enumeration:  %d reports (minimum %d), %.1f ms (minimum %d x %.2f = %.1f "
        "ms, ratio %.2f)\n",
        first_reports, kFirstMinimum, median(first_ms), kFirstMinimum, rtt, kFirstMinimum * rtt,
        median(first_ms) / (kFirstMinimum * rtt));
    std::printf(
        "repeat enumeration: %d reports (minimum %d), %.1f ms (minimum %d x %.2f = %.1f "
        "ms, ratio %.2f)\n",
        repeat_reports, kRepeatMinimum, median(repeat_ms), kRepeatMinimum, rtt,
        kRepeatMinimum * rtt, median(repeat_ms) / (kRepeatMinimum * rtt));
    sent.unsubscribe(hw);
    return first_reports <= kFirstMinimum && repeat_reports <= kRepeatMinimum ? 0 : 1;
}
