// When a device says "connected", and whether what this host configured is
// still in it: stories of one simulated mouse, as a device behind a receiver
// whose link the test raises and drops, under a host that pumps the run loop.

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "DeviceRig.h"
#include "Features/IFeature0020ConfigChange.h"
#include "Manager/CDevio.h"
#include "RunLoopHost.h"
#include "TestSupport.h"

namespace devtest {
namespace {

using devio::test::eventually;

// What the device told, in order: "connect 1", "connect 0", "disconnect",
// "config".
class Story : public devio::Subscriber<devio::IDevice::Connect>,
              public devio::Subscriber<devio::IDevice::ConfigChange> {
public:
    void onConnect(const std::shared_ptr<devio::IDevice>&, bool ours) override {
        add(ours ? "connect 1" : "connect 0");
    }
    void onDisconnect(const std::shared_ptr<devio::IDevice>&) override { add("disconnect"); }
    void onFirmwareChanged(const std::shared_ptr<devio::IDevice>&) override { add("firmware"); }
    void onConfigChange() override { add("config"); }
    std::vector<std::string> take() {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(told_, {});
    }
    std::size_t size() {
        std::lock_guard<std::mutex> lock(mutex_);
        return told_.size();
    }

private:
    void add(const char* what) {
        std::lock_guard<std::mutex> lock(mutex_);
        told_.push_back(what);
    }
    std::mutex mutex_;
    std::vector<std::string> told_;
};

using Told = std::vector<std::string>;

struct Stage {
    Stage() : rig(false, true) {
        EXPECT_TRUE(host.start());
        EXPECT_TRUE(story.devio::Subscriber<devio::IDevice::Connect>::subscribe(rig.dev, 0));
        EXPECT_TRUE(story.devio::Subscriber<devio::IDevice::ConfigChange>::subscribe(rig.dev, 1));
        cookie_feature = std::dynamic_pointer_cast<devio::IFeature0020ConfigChange>(
            rig.dev->feature_by_id(0x0020));
        EXPECT_TRUE(cookie_feature);
        battery = rig.dev->feature_by_id(0x1000);
    }
    ~Stage() { host.stop(); }
    std::uint16_t cookie_on_device() {
        std::uint16_t value = 0xFFFF;
        EXPECT_TRUE(cookie_feature->GetCookie(&value));
        return value;
    }
    // Raises the link once the device has been quiet for a second, as a
    // device that really reconnects would be.
    Told reconnect(std::size_t expect) {
        rig.slot->link(false);
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        rig.slot->link(true);
        EXPECT_TRUE(eventually([&] { return story.size() >= expect; })) << "told " << story.size();
        EXPECT_TRUE(host.wait_idle(std::chrono::milliseconds(5000)));
        return story.take();
    }

    devio::RunLoopHost host;
    DeviceRig rig;
    Story story;
    std::shared_ptr<devio::IFeature0020ConfigChange> cookie_feature;
    std::shared_ptr<devio::IFeature> battery;
};

TEST(Connection, CookieDecidesWhetherAReconnectedDeviceIsStillOurs) {
    Stage s;
    // Another program left its cookie: ours is written over a zero, and
    // never equals the foreign one.
    s.rig.sim("cookie mouse 0x1234");
    ASSERT_TRUE(s.rig.dev->set_configured(s.battery)) << devio::error_record().err;
    const std::uint16_t ours = s.cookie_on_device();
    EXPECT_NE(ours, 0);
    EXPECT_NE(ours, 0x1234);
    EXPECT_EQ(s.story.take(), Told{"config"});
    ASSERT_TRUE(s.rig.dev->set_configured(s.battery));
    EXPECT_EQ(s.cookie_on_device(), ours) << "a second feature writes no cookie";
    EXPECT_TRUE(s.story.take().empty());

    // Asleep and awake with the cookie intact: still ours.
    EXPECT_EQ(s.reconnect(2), (Told{"disconnect", "connect 1"}));
    EXPECT_TRUE(s.rig.dev->configured());

    // Another host configured it meanwhile: given up, said so.
    s.rig.sim("cookie mouse 0x4321 2");
    EXPECT_EQ(s.reconnect(3), (Told{"disconnect", "config", "connect 0"}));
    EXPECT_FALSE(s.rig.dev->configured());

    // Wireless status "configuration needed" with another cookie on the
    // device: told as a disconnect and a connect with false; the
    // configuration list itself stays.
    ASSERT_TRUE(s.rig.dev->set_configured(s.battery));
    s.story.take();
    s.rig.sim("cookie mouse 0x5555 2");
    s.rig.sim("wireless mouse 0 1 0");
    ASSERT_TRUE(eventually([&] { return s.story.size() >= 2; }));
    ASSERT_TRUE(s.host.wait_idle(std::chrono::milliseconds(5000)));
    EXPECT_EQ(s.story.take(), (Told{"disconnect", "connect 0"}));
    EXPECT_TRUE(s.rig.dev->configured());

    // New firmware: the device loses its cookie and asks for configuration;
    // the library finds the firmware changed, forgets what it knew, and
    // discovers the device afresh.
    s.rig.sim("reflash mouse 0 0x1300");
    ASSERT_TRUE(eventually([&] { return s.story.size() >= 2; }));
    ASSERT_TRUE(s.host.wait_idle(std::chrono::milliseconds(5000)));
    auto told = s.story.take();
    std::sort(told.begin(), told.end());
    EXPECT_EQ(told, (Told{"config", "firmware"}));
    EXPECT_FALSE(s.rig.dev->configured());
    auto again = std::dynamic_pointer_cast<devio::IFeature0020ConfigChange>(
        s.rig.dev->feature_by_id(0x0020));
    ASSERT_TRUE(again) << devio::error_record().err;
    EXPECT_NE(again, s.cookie_feature) << "a feature object of the old firmware was kept";
    std::uint16_t value = 1;
    EXPECT_TRUE(again->GetCookie(&value));
    EXPECT_EQ(value, 0);
}

TEST(Connection, InactiveSessionHandsTheDeviceBackAfterFiveSecondsUnlessActiveAgain) {
    Stage s;
    ASSERT_TRUE(s.rig.dev->set_configured(s.battery));
    const std::uint16_t ours = s.cookie_on_device();
    s.story.take();

    // Back within the five seconds: nothing is handed back.
    devio::cdevio.set_active(false);
    ASSERT_TRUE(eventually([&] { return s.story.size() >= 1; }));
    devio::cdevio.set_active(true);
    ASSERT_TRUE(eventually([&] { return s.story.size() >= 2; }));
    EXPECT_EQ(s.story.take(), (Told{"disconnect", "connect 1"}));
    std::this_thread::sleep_for(std::chrono::milliseconds(6000));
    EXPECT_EQ(s.cookie_on_device(), ours);
    EXPECT_TRUE(s.rig.dev->configured());

    // Inactive for good: after five seconds the cookie is cleared and the
    // features are told; no connect is said.
    devio::cdevio.set_active(false);
    ASSERT_TRUE(eventually([&] { return s.story.size() >= 2; }, std::chrono::milliseconds(9000)));
    ASSERT_TRUE(s.host.wait_idle(std::chrono::milliseconds(5000)));
    EXPECT_EQ(s.story.take(), (Told{"disconnect", "config"}));
    EXPECT_EQ(s.cookie_on_device(), 0);
    EXPECT_FALSE(s.rig.dev->configured());
}

TEST(Connection, ChecksWaitForAQuietSecondAndShutdownLeavesAnUnconfiguredDeviceAlone) {
    Stage s;
    // A connected device that keeps talking puts the check off.
    ASSERT_TRUE(s.rig.dev->connected());
    for (int i = 0; i < 8; ++i) {
        s.rig.sim("battery mouse " + std::to_string(50 + i));
        if (i == 1) s.rig.dev->confirm_configuration();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    EXPECT_TRUE(s.story.take().empty()) << "checked while reports kept coming";
    ASSERT_TRUE(eventually([&] { return s.story.size() >= 1; }));
    EXPECT_EQ(s.story.take(), Told{"connect 0"});

    s.rig.rec.clear();
    EXPECT_TRUE(s.rig.dev->shutdown());
    EXPECT_TRUE(s.rig.rec.sent().empty()) << "shutdown touched a device we never configured";
}

}  // namespace
}  // namespace devtest
