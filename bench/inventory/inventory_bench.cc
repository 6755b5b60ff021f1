// Prints the time of CollectSystemData on the demo's simulated desk, every
// device answering 8 ms late as a wireless link does, against its bound: the
// reports the collection needed (counted from the devices' answers in the
// same run) times 8 ms. The first upload starts the library and discovers
// the devices; later uploads in the same process find them kept, with the
// constant answers cached, and are held to at most 1.25 times their bound.
// The events file is absent, so nothing is sent: the time is the header's.

#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <vector>

#include "Base/Subscriber.h"
#include "DescriptionJson.h"
#include "Device/IDevice.h"
#include "Machine.h"
#include "Manager/CDevio.h"
#include "globals.h"
#include "upload_header.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kLinkMs = 8;
constexpr int kRepeats = 15;
constexpr double kTarget = 1.25;
const char* const kIds[] = {"mouse", "split", "dongle", "keyboard", "trackball"};

// Answers to our commands that reached the library: one per exchange.
class Answers : public devio::Subscriber<devio::IDevice::Report> {
public:
    void onReport(const std::vector<devio::Byte>&, unsigned, unsigned,
                  devio::IDevice::ReportType type) override {
        if (type == devio::IDevice::ReportResponse) count.fetch_add(1);
    }
    std::atomic<int> count{0};
};

double collect(const std::string& eventsPath) {
    qv::UploadContext context;
    context.eventsPath = eventsPath;
    const auto begin = Clock::now();
    qv::CollectSystemData(context);
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

}  // namespace

int main() {
    char name[] = "/tmp/inventory-bench-XXXXXX";
    const std::string dir = ::mkdtemp(name);
    std::ifstream in(DEMO_DESK);
    std::stringstream text;
    text << in.rdbuf();
    auto machine =
        std::make_unique<devio_sim::Machine>(devio_sim::parseMachine(text.str()), dir + "/desk");
    if (const std::string why = machine->start(); !why.empty()) {
        std::fprintf(stderr, "simulator: %s\n", why.c_str());
        return 1;
    }
    for (const char* id : kIds) {
        machine->withFaults(id, [](devio_sim::Faults& f) {
            f.delay(kLinkMs, devio_sim::Faults::kForever);
            return std::string();
        });
    }
    ::setenv("DEVIO_SYSFS_ROOT", machine->sysfsRoot().c_str(), 1);
    ::setenv("DEVIO_DEV_ROOT", machine->devRoot().c_str(), 1);
    ::setenv("DEVIO_LOCK_DIR", dir.c_str(), 1);
    qv::setDataDir(dir + "/data");
    qv::makeDataDir();
    const std::string noEvents = dir + "/data/qvevents.json";

    const double first = collect(noEvents);
    const auto devices = devio::cdevio.devices();
    Answers answers;
    for (const auto& device : devices) answers.subscribe(device, 1);

    std::vector<double> ratios;
    double second = 0, secondBound = 0;
    int secondReports = 0;
    for (int round = 0; round < kRepeats; ++round) {
        const int before = answers.count.load();
        const double ms = collect(noEvents);
        const int reports = answers.count.load() - before;
        const double bound = reports * kLinkMs;
        if (round == 0) second = ms, secondBound = bound, secondReports = reports;
        ratios.push_back(bound > 0 ? ms / bound : 0);
    }
    std::sort(ratios.begin(), ratios.end());
    std::printf("CollectSystemData, simulated desk (%zu devices), %d ms per answer\n",
                devices.size(), kLinkMs);
    std::printf("  first upload (library start, discovery): %8.1f ms\n", first);
    std::printf(
        "  second upload: %3d reports, bound %6.1f ms, took %6.1f ms, %.2fx (target %.2fx)\n",
        secondReports, secondBound, second, secondBound > 0 ? second / secondBound : 0, kTarget);
    std::printf("  later uploads, median of %d: %.2fx the bound\n", kRepeats,
                ratios[ratios.size() / 2]);
    machine.reset();
    std::filesystem::remove_all(dir);
    const bool met = secondBound > 0 && second <= kTarget * secondBound;
    if (!met) std::printf("  target missed\n");
    return met ? 0 : 1;
}
