// 100 cycles of pairing, link loss, link return and unpairing behind one
// receiver under a pumping host, while another thread keeps talking to a
// device that stays paired: every arrival is matched by one removal, the
// list ends as the receiver holds it, and nothing is left behind.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <thread>

#include "Base/ErrorRecord.h"
#include "Features/IFeature.h"
#include "Features/IFeature1000BatteryUnifiedLevelStatus.h"
#include "Manager/CDevio.h"
#include "ReceiverRig.h"
#include "RunLoopHost.h"
#include "SimHost.h"
#include "TestSupport.h"

namespace rcvtest {
namespace {

using devio::cdevio;
using devio::test::directory_entries;
using devio::test::eventually;
using namespace std::chrono_literals;

TEST(Stress, HundredPairingCyclesLeaveNothingBehind) {
    simtest::SimMachine sim(desk(false));
    simtest::use_machine(sim);
    devio::RunLoopHost host;
    ASSERT_TRUE(host.start());
    ASSERT_TRUE(cdevio.config_set(kReceiversActive, true));
    Ledger ledger;
    ASSERT_TRUE(ledger.subscribe(cdevio.manager(), devio::DeliveryDirect));
    ASSERT_TRUE(cdevio.devices().empty());
    ASSERT_TRUE(host.wait_idle(5000ms));
    const std::size_t fds = directory_entries("/proc/self/fd");
    const std::size_t tasks = directory_entries("/proc/self/task");

    ASSERT_EQ(sim.command("plug dongle"), "ok");
    ASSERT_TRUE(eventually([&] { return ledger.present(kKbd) != nullptr; }, 10000ms));
    auto battery = std::dynamic_pointer_cast<devio::IFeature1000BatteryUnifiedLevelStatus>(
        ledger.present(kKbd)->feature_by_id(0x1000));
    ASSERT_TRUE(battery);

    std::atomic<bool> stop{false};
    std::atomic<int> talked{0}, wrong{0};
    std::thread talker([&] {
        while (!stop) {
            std::uint16_t level = 0, next = 0, status = 0;
            // Failures are allowed while the receiver is busy; a wrong
            // answer never is.
            if (battery->GetBatteryLevelStatus(&level, &next, &status)) {
                ++talked;
                if (level != 90) ++wrong;
            }
        }
    });
    // Each step waits until the host has heard of it: a receiver's link is
    // slow, and a host that falls behind loses reports (the kernel keeps a
    // few dozen per reader).
    auto arrivals = [&](int pid) {
        const auto events = ledger.events();
        return std::count(events.begin(), events.end(), pid);
    };
    auto link = [&](int pid, bool up) {
        const auto d = ledger.present(pid);
        return d && d->connected() == up;
    };
    std::mt19937 random(25);
    const int spare_pids[] = {kSpare, kOther};
    for (int cycle = 0; cycle < 100; ++cycle) {
        SCOPED_TRACE(cycle);
        const std::string id = cycle % 2 ? "other" : "spare";
        const int pid = spare_pids[cycle % 2];
        // Slots 4 to 6, and now and then the mouse's own slot.
        const int slot = random() % 8 == 0 ? 2 : 4 + static_cast<int>(random() % 3);
        const auto before = arrivals(pid);
        ASSERT_EQ(sim.command("pair dongle " + id + " " + std::to_string(slot)), "ok");
        ASSERT_TRUE(eventually([&] { return arrivals(pid) == before + 1 && link(pid, true); }));
        if (random() % 2) {
            ASSERT_EQ(sim.command("disconnect " + id), "ok");
            ASSERT_TRUE(eventually([&] { return link(pid, false); }));
            ASSERT_EQ(sim.command("connect " + id), "ok");
            ASSERT_TRUE(eventually([&] { return link(pid, true); }));
        }
        ASSERT_EQ(sim.command("unpair " + id), "ok");
        ASSERT_TRUE(eventually([&] { return !ledger.present(pid); }));
        if (slot == 2) {
            ASSERT_EQ(sim.command("pair dongle mouse 2"), "ok");
            ASSERT_TRUE(eventually([&] { return ledger.present(kMouse) != nullptr; }));
        }
    }
    ASSERT_TRUE(host.wait_idle(10000ms));
    stop = true;
    talker.join();
    battery.reset();
    EXPECT_GT(talked, 0);
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(pids(cdevio.devices()), (std::vector<int>{kKbd, kMouse, kBall, kDongle}));

    ASSERT_EQ(sim.command("unplug dongle"), "ok");
    ASSERT_TRUE(eventually([&] { return cdevio.devices().empty(); }, 10000ms));
    ASSERT_TRUE(host.wait_idle(10000ms));
    // Per device: arrivals and removals alternate, and all are gone.
    std::map<int, int> balance;
    for (int e : ledger.events()) {
        const int pid = e < 0 ? -e : e;
        balance[pid] += e < 0 ? -1 : 1;
        ASSERT_GE(balance[pid], 0) << std::hex << pid;
        ASSERT_LE(balance[pid], 1) << std::hex << pid;
    }
    for (const auto& [pid, open] : balance) EXPECT_EQ(open, 0) << std::hex << pid;
    EXPECT_GE(ledger.events().size(), 200u);
    EXPECT_TRUE(eventually([&] { return directory_entries("/proc/self/task") == tasks; }))
        << directory_entries("/proc/self/task") << " threads, " << tasks << " before";
    EXPECT_TRUE(eventually([&] { return directory_entries("/proc/self/fd") == fds; }))
        << directory_entries("/proc/self/fd") << " descriptors, " << fds << " before";
    ledger.unsubscribe(cdevio.manager());
    host.stop();
}

}  // namespace
}  // namespace rcvtest
