// The library as a host starts it: configuration items, then `devices()`,
// over the real stack (combiner over the platform bus) on a simulated
// machine.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Base/ErrorRecord.h"
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

enum Item : unsigned { kReceiversActive = 4, kCordedActive = 5 };

// A corded mouse, a device in two pieces, and a receiver (its product id
// makes it one) on a node of its own.
const char* const kDesk = R"({
  "devices": [
    {"id": "mouse", "name": "Sim Mouse", "pid": "0xC08B"},
    {"id": "split", "pid": "0xB021", "collections": [
        {"usage_page": "0xFF00", "usage": 1, "report_id": 16, "size": 7},
        {"usage_page": "0xFF00", "usage": 2, "report_id": 17, "size": 20}]}],
  "receivers": [{"id": "dongle", "pid": "0xA105", "devices": []}]})";

// Arrivals and removals by product id, as the manager tells them.
class Watcher : public devio::Subscriber<IDeviceManager::ArrivalRemoval>,
                public devio::Subscriber<IDeviceManager::ActiveChanged> {
public:
    void onDeviceArrival(const std::shared_ptr<IDevice>& d) override { add(&arrived_, d->pid()); }
    void onDeviceRemoval(const std::shared_ptr<IDevice>& d) override { add(&removed_, d->pid()); }
    void onActiveChanged(bool active) override { add(&active_, active ? 1 : 0); }
    std::multiset<int> arrived() { return get(arrived_); }
    std::multiset<int> removed() { return get(removed_); }
    std::multiset<int> active() { return get(active_); }

private:
    void add(std::multiset<int>* to, int v) {
        std::lock_guard<std::mutex> lock(mutex_);
        to->insert(v);
    }
    std::multiset<int> get(const std::multiset<int>& from) {
        std::lock_guard<std::mutex> lock(mutex_);
        return from;
    }
    std::mutex mutex_;
    std::multiset<int> arrived_, removed_, active_;
};

std::multiset<int> pids(const std::vector<std::shared_ptr<IDevice>>& devices) {
    std::multiset<int> out;
    for (const auto& d : devices) out.insert(d->pid());
    return out;
}

TEST(Manager, EmptyMachineGivesNoDevicesAndNoError) {
    SimMachine sim(R"({"devices": []})");
    use_machine(sim);
    ASSERT_TRUE(cdevio.config_set(kCordedActive, true));
    devio::set_error(devio::InternalError);
    EXPECT_TRUE(cdevio.devices().empty());
    EXPECT_EQ(devio::error_record().err, devio::Success);
}

// Each configuration lets its own devices through; changing it after the
// start rebuilds the stack and leaves nothing of the old one behind.
TEST(Manager, ConfigurationDecidesWhichDevicesPassAndAChangeRebuildsTheStack) {
    SimMachine sim(kDesk);
    use_machine(sim);
    Watcher watcher;
    bool value = true;
    EXPECT_FALSE(cdevio.config_get(8, &value));
    EXPECT_EQ(devio::error_record().err, devio::InvalidConfigItem);
    EXPECT_FALSE(cdevio.config_set(8, true));

    // Nothing passes by default: no item lets a corded device through.
    devio::set_error(devio::InternalError);
    EXPECT_TRUE(cdevio.devices().empty());
    EXPECT_EQ(devio::error_record().err, devio::Success);
    ASSERT_TRUE(watcher.devio::Subscriber<IDeviceManager::ArrivalRemoval>::subscribe(
        cdevio.manager(), devio::DeliveryDirect));

    struct Step {
        unsigned item;
        bool value;
        std::multiset<int> expected;
    };
    // Corded devices, then receivers only: a corded device is suppressed and
    // the receiver (its product id in the receiver range) passes.
    const Step steps[] = {
        {kCordedActive, true, {0xA105, 0xB021, 0xC08B}},
        {kReceiversActive, true, {0xA105, 0xB021, 0xC08B}},
        {kCordedActive, false, {0xA105}},
        {kReceiversActive, false, {}},
    };
    std::vector<std::shared_ptr<IDevice>> before;
    for (const Step& step : steps) {
        SCOPED_TRACE(step.item * 10 + step.value);
        ASSERT_TRUE(cdevio.config_set(step.item, step.value));
        // Setting the same value again touches nothing.
        const auto arrivals = watcher.arrived().size();
        ASSERT_TRUE(cdevio.config_set(step.item, step.value));
        EXPECT_EQ(watcher.arrived().size(), arrivals);

        const auto now = cdevio.devices();
        EXPECT_EQ(pids(now), step.expected);
        for (const auto& old : before) {
            const bool kept = std::find(now.begin(), now.end(), old) != now.end();
            EXPECT_FALSE(kept) << "a rebuilt stack makes new devices";
            EXPECT_TRUE(old->removed()) << "a device of the old stack was left running";
        }
        before = now;
    }
    // Every arrival was matched by one removal.
    EXPECT_EQ(watcher.arrived(), watcher.removed());
    EXPECT_EQ(watcher.arrived().count(0xC08B), 2u);
}

// A device whose node goes is removed once, through the host's run loop;
// activity switched off and on announces nothing twice.
TEST(Manager, UnplugAndActivityReachAPumpingHostOnce) {
    SimMachine sim(kDesk);
    use_machine(sim);
    devio::RunLoopHost host;
    ASSERT_TRUE(host.start());
    Watcher watcher;
    ASSERT_TRUE(cdevio.config_set(kCordedActive, true));
    ASSERT_TRUE(watcher.devio::Subscriber<IDeviceManager::ArrivalRemoval>::subscribe(
        cdevio.manager(), devio::DeliveryDirect));
    ASSERT_TRUE(watcher.devio::Subscriber<IDeviceManager::ActiveChanged>::subscribe(
        cdevio.manager(), devio::DeliveryDirect));
    // The subscription itself started the library: what was there is in
    // the list, not in arrivals.
    EXPECT_TRUE(watcher.arrived().empty());
    auto devices = cdevio.devices();
    ASSERT_EQ(pids(devices), (std::multiset<int>{0xA105, 0xB021, 0xC08B}));

    cdevio.set_active(false);
    cdevio.set_active(false);  // a repeated false is not told
    cdevio.set_active(true);   // true makes every bus announce again
    ASSERT_TRUE(host.wait_idle(std::chrono::milliseconds(5000)));
    EXPECT_EQ(watcher.active(), (std::multiset<int>{0, 1}));
    EXPECT_TRUE(watcher.arrived().empty()) << "a known device arrived again";

    // The mouse reads once it is asked something; its node going ends the
    // read, and the removal travels up the stack to the host's thread.
    auto mouse = *std::find_if(devices.begin(), devices.end(),
                               [](const auto& d) { return d->pid() == 0xC08B; });
    ASSERT_FALSE(mouse->features().empty()) << devio::error_record().err;
    ASSERT_EQ(sim.command("unplug mouse"), "ok");
    ASSERT_TRUE(eventually([&] { return watcher.removed().count(0xC08B) == 1; }));
    ASSERT_TRUE(host.wait_idle(std::chrono::milliseconds(5000)));
    EXPECT_EQ(pids(cdevio.devices()), (std::multiset<int>{0xA105, 0xB021}));
    EXPECT_EQ(watcher.removed(), std::multiset<int>{0xC08B});
    EXPECT_TRUE(mouse->removed());
    host.stop();
}

}  // namespace
}  // namespace simtest
