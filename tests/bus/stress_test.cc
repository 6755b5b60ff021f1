// Device changes in bursts, through the platform bus, the combiner and the
// manager to a pumping host: nothing lost, nothing told twice, nothing left
// behind.

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Base/Subscriber.h"
#include "Device/IDevice.h"
#include "Manager/CDevio.h"
#include "RunLoopHost.h"
#include "SimHost.h"
#include "TestSupport.h"

namespace simtest {
namespace {

using devio::cdevio;
using devio::IDevice;
using devio::IDeviceManager;
using devio::test::eventually;

constexpr unsigned kCordedActive = 5;

// Each device's arrivals (+1) and removals (-1) in the order told, by pid.
class Ledger : public devio::Subscriber<IDeviceManager::ArrivalRemoval> {
public:
    void onDeviceArrival(const std::shared_ptr<IDevice>& d) override { add(d, +1); }
    void onDeviceRemoval(const std::shared_ptr<IDevice>& d) override { add(d, -1); }
    std::map<int, std::vector<int>> byPid() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    std::size_t total() {
        std::lock_guard<std::mutex> lock(mutex_);
        return total_;
    }
    std::vector<std::shared_ptr<IDevice>> present() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::shared_ptr<IDevice>> out;
        for (const auto& [pid, d] : present_) out.push_back(d);
        return out;
    }

private:
    void add(const std::shared_ptr<IDevice>& d, int sign) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_[d->pid()].push_back(sign);
        ++total_;
        if (sign > 0) {
            present_[d->pid()] = d;
        } else {
            present_.erase(d->pid());
        }
    }
    std::mutex mutex_;
    std::map<int, std::vector<int>> events_;
    std::map<int, std::shared_ptr<IDevice>> present_;
    std::size_t total_ = 0;
};

struct Session {
    explicit Session(SimMachine& sim) {
        use_machine(sim);
        EXPECT_TRUE(host.start());
        EXPECT_TRUE(cdevio.config_set(kCordedActive, true));
        EXPECT_TRUE(ledger.subscribe(cdevio.manager(), devio::DeliveryDirect));
    }
    ~Session() {
        ledger.unsubscribe(cdevio.manager());
        host.stop();
    }
    // Every pid's events alternate, arrival first, and end in its state.
    void expectAlternating(const std::set<int>& plugged) {
        for (const auto& [pid, seq] : ledger.byPid()) {
            SCOPED_TRACE(pid);
            for (std::size_t i = 0; i < seq.size(); ++i)
                ASSERT_EQ(seq[i], i % 2 == 0 ? +1 : -1) << "event " << i << " told twice or lost";
            EXPECT_EQ(seq.size() % 2 == 1, plugged.count(pid) == 1);
        }
    }
    devio::RunLoopHost host;
    Ledger ledger;
};

// 500 plugs and unplugs in bursts over ten devices: each burst toggles some
// of them at once, without waiting between them.
TEST(Stress, FiveHundredChangesInBurstsReachTheManagerInOrderOnce) {
    SimMachine sim(mice(10, false));
    Session run(sim);
    ASSERT_TRUE(cdevio.devices().empty());
    std::mt19937 random(17);
    std::set<int> plugged;
    std::size_t told = 0;
    while (told < 500) {
        std::vector<int> burst;
        for (int i = 0; i < 10 && told + burst.size() < 500; ++i) {
            if (random() % 2) burst.push_back(i);
        }
        for (int i : burst) {
            const bool in = plugged.count(0xC080 + i) != 0;
            ASSERT_EQ(sim.command((in ? "unplug m" : "plug m") + std::to_string(i)), "ok");
            if (in) {
                plugged.erase(0xC080 + i);
            } else {
                plugged.insert(0xC080 + i);
            }
        }
        told += burst.size();
        ASSERT_TRUE(eventually([&] { return run.ledger.total() == told; }))
            << run.ledger.total() << " of " << told;
    }
    ASSERT_TRUE(run.host.wait_idle(std::chrono::milliseconds(5000)));
    run.expectAlternating(plugged);
    EXPECT_EQ(run.ledger.total(), 500u);
    std::set<int> listed;
    for (const auto& d : cdevio.devices()) listed.insert(d->pid());
    EXPECT_EQ(listed, plugged);
}

// 200 plugs, unplugs and replugs over four devices while another thread
// sends them commands: the list ends as what is plugged, and nothing that
// came and went leaves a descriptor or a thread.
TEST(Stress, ReplugCyclesUnderCommandsLeaveNothingBehind) {
    SimMachine sim(mice(4, false));
    Session run(sim);
    ASSERT_TRUE(cdevio.devices().empty());
    ASSERT_TRUE(run.host.wait_idle(std::chrono::milliseconds(5000)));
    const std::size_t fds = devio::test::directory_entries("/proc/self/fd");
    const std::size_t tasks = devio::test::directory_entries("/proc/self/task");

    std::atomic<bool> stop{false};
    std::atomic<int> answered{0};
    // Loading a device's features is a run of synchronous commands.
    std::thread commands([&] {
        while (!stop) {
            for (const auto& d : run.ledger.present()) answered += !d->features().empty();
            std::this_thread::yield();
        }
    });
    std::mt19937 random(29);
    std::set<int> plugged;
    for (int cycle = 0; cycle < 200; ++cycle) {
        const int i = static_cast<int>(random() % 4);
        const std::string id = "m" + std::to_string(i);
        if (plugged.count(0xC080 + i) == 0) {
            ASSERT_EQ(sim.command("plug " + id), "ok");
            plugged.insert(0xC080 + i);
        } else if (random() % 2) {
            ASSERT_EQ(sim.command("replug " + id), "ok");
        } else {
            ASSERT_EQ(sim.command("unplug " + id), "ok");
            plugged.erase(0xC080 + i);
        }
        // Bursts of eight, with room between them for commands to get through.
        if (cycle % 8 == 7) std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    const auto listed = [] {
        std::set<int> out;
        for (const auto& d : cdevio.devices()) out.insert(d->pid());
        return out;
    };
    if (plugged.empty()) {
        ASSERT_EQ(sim.command("plug m0"), "ok");
        plugged.insert(0xC080);
    }
    EXPECT_TRUE(eventually([&] { return listed() == plugged; }, std::chrono::milliseconds(20000)));
    // Once the machine is still, the commands of the other thread get
    // through: whatever the churn did, no device was left unusable.
    EXPECT_TRUE(eventually([&] { return answered.load() > 0; }, std::chrono::milliseconds(20000)))
        << "no command got through";
    for (int pid : std::set<int>(plugged)) {
        ASSERT_EQ(sim.command("unplug m" + std::to_string(pid - 0xC080)), "ok");
        plugged.erase(pid);
    }
    EXPECT_TRUE(eventually([&] { return run.ledger.present().empty() && listed().empty(); },
                           std::chrono::milliseconds(20000)));
    stop = true;
    commands.join();
    ASSERT_TRUE(run.host.wait_idle(std::chrono::milliseconds(5000)));
    run.expectAlternating(plugged);
    EXPECT_TRUE(eventually([&] {
        return devio::test::directory_entries("/proc/self/task") == tasks;
    })) << devio::test::directory_entries("/proc/self/task")
        << " threads, " << tasks << " before";
    EXPECT_TRUE(eventually([&] { return devio::test::directory_entries("/proc/self/fd") == fds; }))
        << devio::test::directory_entries("/proc/self/fd") << " descriptors, " << fds << " before";
}

}  // namespace
}  // namespace simtest
