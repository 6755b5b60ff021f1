// The configuration cookie, battery and wireless status against a simulated
// device: the bytes on the wire, and the device's notifications and another
// program's cookie write reaching subscribers of both deliveries.

#include <gtest/gtest.h>

#include "FeatureBench.h"
#include "Features/Feature.h"
#include "RunLoopHost.h"

namespace devtest {
namespace {

using devio::IFeature0020ConfigChange;
using devio::IFeature1000BatteryUnifiedLevelStatus;
using devio::IFeature1D4BWirelessStatus;

// A direct and a run-loop subscriber of one feature's events; the host
// pumps the run loop on a thread of its own.
struct Listeners {
    EventTrail direct, queued;
    devio::RunLoopHost host;  // declared last: stops pumping first

    template <class Event, class Object>
    void join(const std::shared_ptr<Object>& feature) {
        ASSERT_TRUE(host.start());
        ASSERT_TRUE(direct.join<Event>(feature, devio::DeliveryDirect));
        ASSERT_TRUE(queued.join<Event>(feature, devio::DeliveryRunLoop));
    }
    // Both heard exactly `lines`, the run-loop one on the host's thread.
    void expect(const std::vector<std::string>& lines) {
        EXPECT_EQ(direct.wait(lines.size()), lines);
        EXPECT_EQ(queued.wait(lines.size()), lines);
        for (const auto id : queued.threads()) EXPECT_EQ(id, host.thread_id());
        for (const auto id : direct.threads()) EXPECT_NE(id, host.thread_id());
    }
};

// Traffic that the wire cannot carry (a report holds at least 3 parameter
// bytes), handed to the feature as its device would.
devio::Feature& entry(const std::shared_ptr<devio::IFeature>& feature) {
    return *feature->sharedFeature();
}

TEST(ConfigChange, CookieOnTheWireAndAnotherProgramsWrite) {
    FeatureBench bench(deviceMachine(R"("cookie": "0x0102")"));
    auto feature = bench.loadFeature(0x0020);
    auto config = std::dynamic_pointer_cast<IFeature0020ConfigChange>(feature);
    ASSERT_TRUE(config);
    Listeners on;
    on.join<IFeature0020ConfigChange::ConfigReport>(config);
    const unsigned swid = bench.rig.dev->swid();

    std::uint16_t cookie = 0;
    ASSERT_TRUE(config->GetCookie(&cookie));
    EXPECT_EQ(cookie, 0x0102);
    ASSERT_TRUE(config->SetCookie(0xABCD));
    const Bytes wire = bench.rig.rec.sent().back();
    EXPECT_EQ(wire[3], 0x10 | swid);
    EXPECT_EQ(wire[4], 0xAB);
    EXPECT_EQ(wire[5], 0xCD);
    bench.sentSinceLastLook();
    ASSERT_TRUE(config->GetCookie(&cookie));
    ASSERT_TRUE(config->GetCookie(nullptr));
    EXPECT_EQ(cookie, 0xABCD);
    EXPECT_EQ(bench.sentSinceLastLook(), 2u) << "never from the cache";

    // Another program's write shows as the answer to it, under its software
    // id; the answer to its read tells nothing new.
    const unsigned other = swid == 3 ? 4 : 3;
    bench.rig.sim("cookie mouse 0x1234 " + std::to_string(other));
    entry(feature).deliverUnexpectedResponse(0, other, {0x55, 0x66, 0});
    on.expect({"cookie " + std::to_string(other) + " 4660"});
    ASSERT_TRUE(config->GetCookie(&cookie));
    EXPECT_EQ(cookie, 0x1234);
}

TEST(Battery, StatusCapabilityAndNotificationsOfBothDeliveries) {
    FeatureBench bench(deviceMachine(R"("battery": {"level": 90, "next_level": 50, "status": 0,
        "number_of_levels": 4, "flags": 3, "nominal_life": "0x1234", "critical_level": 5})"));
    auto feature = bench.loadFeature(0x1000);
    auto battery = std::dynamic_pointer_cast<IFeature1000BatteryUnifiedLevelStatus>(feature);
    ASSERT_TRUE(battery);
    Listeners on;
    on.join<IFeature1000BatteryUnifiedLevelStatus::Report>(battery);

    std::uint16_t level = 0, next = 0, status = 9, levels = 0, flags = 0;
    std::uint32_t life = 0, critical = 0;
    ASSERT_TRUE(battery->GetBatteryLevelStatus(&level, &next, &status));
    EXPECT_EQ(level, 90);
    EXPECT_EQ(next, 50);
    EXPECT_EQ(status, 0);
    ASSERT_TRUE(battery->GetBatteryCapability(&levels, &flags, &life, &critical));
    EXPECT_EQ(levels, 4);
    EXPECT_EQ(flags, 3);
    EXPECT_EQ(life, 0x1234u);
    EXPECT_EQ(critical, 5u);
    bench.sentSinceLastLook();
    ASSERT_TRUE(battery->GetBatteryCapability(nullptr, nullptr, nullptr, nullptr));
    ASSERT_TRUE(battery->GetBatteryLevelStatus(nullptr, nullptr, nullptr));
    EXPECT_EQ(bench.sentSinceLastLook(), 1u) << "the capability is constant, the level is not";

    // The level steps down; a byte above 127 stays positive; a status comes
    // under any function number; fewer than 3 bytes are no status.
    bench.rig.sim("battery mouse 200 150 1");
    bench.rig.sim("battery mouse 20");
    bench.rig.sim("notify mouse 0x1000 3 10 5 2");
    devio::set_error(devio::Success);
    entry(feature).deliverFeatureReport(0, {1, 2});
    EXPECT_EQ(devio::error_record().err, devio::CommandResponseTooShort);
    on.expect({"battery 200 150 1", "battery 20 150 1", "battery 10 5 2"});
    ASSERT_TRUE(battery->GetBatteryLevelStatus(&level, &next, &status));
    EXPECT_EQ(level, 20);
    EXPECT_EQ(next, 150);
}

TEST(WirelessStatus, FlagsAreTrueOnlyAsOneOnBothDeliveries) {
    FeatureBench bench(deviceMachine(""));
    auto feature = bench.loadFeature(0x1D4B);
    ASSERT_TRUE(std::dynamic_pointer_cast<IFeature1D4BWirelessStatus>(feature));
    Listeners on;
    on.join<IFeature1D4BWirelessStatus::Report>(feature);

    bench.rig.sim("wireless mouse 1 1 0");
    bench.rig.sim("wireless mouse 2 0 0");
    bench.rig.sim("wireless mouse 0 1 1");
    bench.rig.sim("notify mouse 0x1D4B 5 1 255 1");
    devio::set_error(devio::Success);
    entry(feature).deliverFeatureReport(0, {1, 1});
    EXPECT_EQ(devio::error_record().err, devio::CommandResponseTooShort);
    on.expect({"wireless 110", "wireless 000", "wireless 011", "wireless 101"});
}

}  // namespace
}  // namespace devtest
