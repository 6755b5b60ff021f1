// Arrival latency of a device plugged while the library runs: from the plug
// (the simulated machine making the node) to the manager's onDeviceArrival
// on the pumping host's thread, against the time until a bare inotify watch
// of the same directory sees the node: what the bus adds on top of the
// kernel's notification. Median and 99th percentile over 200 plugs.

#include <poll.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include "Base/Subscriber.h"
#include "Device/IDevice.h"
#include "Manager/CDevio.h"
#include "RunLoopHost.h"
#include "SimHost.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kPlugs = 200;

// Stamps the first event after each arm().
class Stamp {
public:
    void arm() {
        std::lock_guard<std::mutex> lock(mutex_);
        stamped_ = false;
    }
    void stamp() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stamped_) return;
        at_ = Clock::now();
        stamped_ = true;
        cv_.notify_all();
    }
    bool wait(Clock::time_point& at) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!cv_.wait_for(lock, std::chrono::seconds(10), [this] { return stamped_; }))
            return false;
        at = at_;
        return true;
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool stamped_ = true;
    Clock::time_point at_;
};

class Arrivals : public devio::Subscriber<devio::IDeviceManager::ArrivalRemoval> {
public:
    void onDeviceArrival(const std::shared_ptr<devio::IDevice>&) override { arrived.stamp(); }
    void onDeviceRemoval(const std::shared_ptr<devio::IDevice>&) override { removed.stamp(); }
    Stamp arrived, removed;
};

double percentile(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    return v[static_cast<std::size_t>(p * static_cast<double>(v.size() - 1))];
}

}  // namespace

int main() {
    simtest::SimMachine sim(R"({"devices": [{"id": "m", "pid": "0xC08B", "plugged": false}]})");
    ::setenv("DEVIO_SYSFS_ROOT", sim.machine().sysfsRoot().c_str(), 1);
    ::setenv("DEVIO_DEV_ROOT", sim.machine().devRoot().c_str(), 1);

    const int watch = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    const std::string dir = sim.machine().sysfsRoot() + "/class/hidraw";
    if (watch < 0 || ::inotify_add_watch(watch, dir.c_str(), IN_CREATE) < 0) {
        std::perror("inotify");
        return 1;
    }
    Stamp seen;
    std::atomic<bool> done{false};
    std::thread watcher([&] {
        alignas(inotify_event) char buf[4096];
        while (!done) {
            pollfd p{watch, POLLIN, 0};
            if (::poll(&p, 1, 100) > 0 && ::read(watch, buf, sizeof buf) > 0) seen.stamp();
        }
    });

    devio::RunLoopHost host;
    Arrivals arrivals;
    if (!host.start() || !devio::cdevio.config_set(5, true) ||
        !arrivals.subscribe(devio::cdevio.manager(), devio::DeliveryDirect)) {
        std::fprintf(stderr, "the library did not start\n");
        return 1;
    }
    std::vector<double> bus_ms, inotify_ms, added_ms;
    for (int i = 0; i < kPlugs; ++i) {
        arrivals.arrived.arm();
        seen.arm();
        const auto start = Clock::now();
        sim.command("plug m");
        Clock::time_point arrived, noticed;
        if (!arrivals.arrived.wait(arrived) || !seen.wait(noticed)) {
            std::fprintf(stderr, "plug %d did not arrive\n", i);
            return 1;
        }
        bus_ms.push_back(std::chrono::duration<double, std::milli>(arrived - start).count());
        inotify_ms.push_back(std::chrono::duration<double, std::milli>(noticed - start).count());
        added_ms.push_back(std::chrono::duration<double, std::milli>(arrived - noticed).count());
        arrivals.removed.arm();
        sim.command("unplug m");
        Clock::time_point gone;
        if (!arrivals.removed.wait(gone)) {
            std::fprintf(stderr, "unplug %d did not arrive\n", i);
            return 1;
        }
    }
    done = true;
    watcher.join();
    arrivals.unsubscribe(devio::cdevio.manager());
    host.stop();

    const double bus_median = percentile(bus_ms, 0.5), ino_median = percentile(inotify_ms, 0.5);
    std::printf("plug to onDeviceArrival   median %.3f ms  p99 %.3f ms  (%d plugs)\n", bus_median,
                percentile(bus_ms, 0.99), kPlugs);
    std::printf("plug to inotify event     median %.3f ms  p99 %.3f ms\n", ino_median,
                percentile(inotify_ms, 0.99));
    std::printf("after the inotify event   median %.3f ms  p99 %.3f ms\n",
                percentile(added_ms, 0.5), percentile(added_ms, 0.99));
    std::printf("ratio (median)            %.2f\n", bus_median / ino_median);
    return 0;
}
