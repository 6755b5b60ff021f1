// Receivers as a host sees them, over the real stack and a simulated
// receiver under a pumping host: arrival and removal order, pairing at run
// time, a slot taken over, a receiver that starts slowly, and the traffic of
// one paired device while another one notifies.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "Base/ErrorRecord.h"
#include "Bus/IReceiver.h"
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
using devio::IDevice;
using devio::test::eventually;
using simtest::SimMachine;
using namespace std::chrono_literals;

class Story : public ::testing::Test {
protected:
    void start(bool plugged) {
        sim = std::make_unique<SimMachine>(desk(plugged));
        simtest::use_machine(*sim);
        ASSERT_TRUE(host.start());
        ASSERT_TRUE(cdevio.config_set(kReceiversActive, true));
        ASSERT_TRUE(ledger.subscribe(cdevio.manager(), devio::DeliveryDirect));
    }
    void TearDown() override { host.stop(); }

    std::unique_ptr<SimMachine> sim;
    devio::RunLoopHost host;
    Ledger ledger;
};

// Plugged at run time, the receiver is announced first, then its devices in
// slot order (a device whose link is down too); unplugged, its devices go
// before it.
TEST_F(Story, ReceiverArrivesBeforeItsDevicesAndLeavesAfterThem) {
    start(false);
    ASSERT_TRUE(cdevio.devices().empty());
    ASSERT_EQ(sim->command("plug dongle"), "ok");
    ASSERT_TRUE(eventually([&] { return ledger.size() == 4; }, 10000ms));
    EXPECT_EQ(ledger.events(), (std::vector<int>{kDongle, kKbd, kMouse, kBall}));

    const auto devices = cdevio.devices();
    EXPECT_EQ(pids(devices), (std::vector<int>{kKbd, kMouse, kBall, kDongle}));
    const auto receiver = with_pid(devices, kDongle);
    ASSERT_TRUE(receiver);
    struct Expect {
        int pid;
        int slot;
        bool connected;
        const char* name;
    };
    for (const Expect& e :
         {Expect{kKbd, 1, true, "Sim Keyboard"}, Expect{kMouse, 2, true, "Sim Mouse"},
          Expect{kBall, 3, false, "Sim Trackball"}}) {
        SCOPED_TRACE(e.name);
        const auto d = with_pid(devices, e.pid);
        ASSERT_TRUE(d);
        EXPECT_EQ(d->bustype(), 1);
        EXPECT_EQ(d->busport(), e.slot);
        EXPECT_EQ(d->path(), receiver->path() + ":" + std::to_string(e.slot - 1));
        EXPECT_EQ(d->connected(), e.connected);
        // The name the receiver keeps for the slot.
        EXPECT_EQ(d->name(), e.name);
    }
    // A command to the device whose link is down fails at once.
    std::vector<devio::Byte> answer;
    EXPECT_FALSE(with_pid(devices, kBall)
                     ->sendSynchronousCommand({0x10, 0xFF, 0x00, 0x1A, 0, 0, 0x33}, answer, 0, {}));
    EXPECT_EQ(devio::error_record().err, devio::NotConnected);

    ASSERT_EQ(sim->command("unplug dongle"), "ok");
    ASSERT_TRUE(eventually([&] { return ledger.size() == 8; }, 10000ms));
    EXPECT_EQ(ledger.events(),
              (std::vector<int>{kDongle, kKbd, kMouse, kBall, -kKbd, -kMouse, -kBall, -kDongle}));
    EXPECT_TRUE(cdevio.devices().empty());
    for (const auto& d : devices) EXPECT_TRUE(d->removed());
}

// Pairing and unpairing at run time arrive and leave through the pump; a
// device paired into a taken slot pushes the old one out first.
TEST_F(Story, PairingUnpairingAndATakenSlot) {
    start(true);
    EXPECT_EQ(pids(cdevio.devices()), (std::vector<int>{kKbd, kMouse, kBall, kDongle}));
    struct Step {
        const char* command;
        std::vector<int> events;
    };
    const Step steps[] = {
        {"pair dongle spare", {kSpare}},
        {"unpair spare", {-kSpare}},
        {"pair dongle other 1", {-kKbd, kOther}},
        // A device that drops and regains its link stays the same device.
        {"disconnect other", {}},
        {"connect other", {}},
    };
    std::vector<int> expected;
    for (const Step& s : steps) {
        SCOPED_TRACE(s.command);
        ASSERT_EQ(sim->command(s.command), "ok");
        expected.insert(expected.end(), s.events.begin(), s.events.end());
        ASSERT_TRUE(eventually([&] { return ledger.size() >= expected.size(); }));
        ASSERT_TRUE(host.wait_idle(5000ms));
        EXPECT_EQ(ledger.events(), expected);
    }
    const auto other = ledger.present(kOther);
    ASSERT_TRUE(other);
    EXPECT_TRUE(eventually([&] { return other->connected(); }));
    EXPECT_EQ(other->busport(), 1);
    EXPECT_EQ(pids(cdevio.devices()), (std::vector<int>{kMouse, kBall, kOther, kDongle}));
}

// One paired device's commands cross the receiver with its own device
// number while another paired device sends notifications: every answer is
// the keyboard's own (its battery stays at 90 while the mouse's moves), and
// every notification reaches the mouse and only it.
TEST_F(Story, CommandsAndNotificationsOfTwoDevicesDoNotMix) {
    start(true);
    const auto devices = cdevio.devices();
    const auto kbd = with_pid(devices, kKbd), mouse = with_pid(devices, kMouse);
    ASSERT_TRUE(kbd && mouse);
    ASSERT_FALSE(mouse->features().empty()) << devio::error_record().err;
    struct Counter : devio::Subscriber<IDevice::Report> {
        std::atomic<int> notifications{0};
        void onReport(const std::vector<devio::Byte>&, unsigned, unsigned,
                      IDevice::ReportType type) override {
            if (type == IDevice::ReportNotification) ++notifications;
        }
    } kbd_reports, mouse_reports;
    ASSERT_TRUE(kbd_reports.subscribe(kbd, devio::DeliveryDirect));
    ASSERT_TRUE(mouse_reports.subscribe(mouse, devio::DeliveryDirect));
    // The battery level is never answered from a cache: each read crosses
    // the receiver.
    auto battery = std::dynamic_pointer_cast<devio::IFeature1000BatteryUnifiedLevelStatus>(
        kbd->feature_by_id(0x1000));
    ASSERT_TRUE(battery) << devio::error_record().err;

    constexpr int kBatteryEvents = 60;
    std::thread notifier([&] {
        for (int i = 0; i < kBatteryEvents; ++i)
            sim->command("battery mouse " + std::to_string(10 + i));
    });
    int wrong = 0, failed = 0;
    for (int i = 0; i < 60; ++i) {
        std::uint16_t level = 0, next = 0, status = 0;
        if (!battery->GetBatteryLevelStatus(&level, &next, &status)) {
            ++failed;
        } else if (level != 90) {
            ++wrong;
        }
    }
    notifier.join();
    EXPECT_EQ(failed, 0) << devio::error_record().err;
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(eventually([&] { return mouse_reports.notifications == kBatteryEvents; }))
        << mouse_reports.notifications;
    EXPECT_EQ(kbd_reports.notifications, 0);
    // And the mouse answers with the level it last announced.
    auto mouse_battery = std::dynamic_pointer_cast<devio::IFeature1000BatteryUnifiedLevelStatus>(
        mouse->feature_by_id(0x1000));
    ASSERT_TRUE(mouse_battery);
    std::uint16_t level = 0, next = 0, status = 0;
    ASSERT_TRUE(mouse_battery->GetBatteryLevelStatus(&level, &next, &status));
    EXPECT_EQ(level, 10 + kBatteryEvents - 1);
    kbd_reports.unsubscribe(kbd);
    mouse_reports.unsubscribe(mouse);
}

// What only a receiver does: the pairing lock and its event, unpairing by
// device number, the slot status bytes; the notifications bit put back
// after another program cleared it; a session that turns inactive and
// active again with nothing changed keeps its devices and tells nothing.
TEST_F(Story, ReceiverOperationsAndRestoredNotifications) {
    start(true);
    const auto devices = cdevio.devices();
    auto receiver = std::dynamic_pointer_cast<devio::IReceiver>(with_pid(devices, kDongle));
    ASSERT_TRUE(receiver);
    struct Locks : devio::Subscriber<devio::IReceiver::LockingChange> {
        std::mutex mutex;
        std::vector<int> states;
        void onLockingChange(const std::shared_ptr<IDevice>&, devio::IReceiver::State state,
                             devio::IReceiver::ErrorType) override {
            std::lock_guard<std::mutex> lock(mutex);
            states.push_back(state);
        }
        std::size_t size() {
            std::lock_guard<std::mutex> lock(mutex);
            return states.size();
        }
    } locks;
    ASSERT_TRUE(locks.subscribe(receiver, devio::DeliveryDirect));
    EXPECT_FALSE(receiver->isTwoDeviceProduct());
    ASSERT_TRUE(receiver->open_lock());
    ASSERT_TRUE(receiver->close_lock());
    ASSERT_TRUE(eventually([&] { return locks.size() == 2; }));
    EXPECT_EQ(locks.states, (std::vector<int>{1, 0}));
    locks.unsubscribe(receiver);

    ASSERT_TRUE(receiver->readSlotStatus());
    EXPECT_EQ(with_pid(devices, kKbd)->secondary_id(), 0x01);
    EXPECT_EQ(receiver->devices_on_receiver().size(), 3u);

    // Another program clears register 0; the pump puts the bit back, so
    // that a pairing is still heard of.
    struct Overwrites : devio::Subscriber<IDevice::Report> {
        std::atomic<int> seen{0};
        void onReport(const std::vector<devio::Byte>& r, unsigned, unsigned,
                      IDevice::ReportType) override {
            if (r.size() >= 7 && r[1] == 0xFF && r[2] == 0x80 && r[3] == 0x00) ++seen;
        }
    } overwrites;
    const auto receiver_device = with_pid(devices, kDongle);
    ASSERT_TRUE(overwrites.subscribe(receiver_device, devio::DeliveryDirect));
    ASSERT_EQ(sim->command("overwrite-flags dongle"), "ok");
    // The other program's write shows, then the answer to ours that puts
    // the bit back.
    ASSERT_TRUE(eventually([&] { return overwrites.seen >= 2; }));
    overwrites.unsubscribe(receiver_device);
    ASSERT_EQ(sim->command("pair dongle spare"), "ok");
    ASSERT_TRUE(eventually([&] { return ledger.present(kSpare) != nullptr; }));

    ASSERT_TRUE(receiver->unpair(2));
    ASSERT_TRUE(eventually([&] { return ledger.size() == 2; }));
    EXPECT_EQ(ledger.events(), (std::vector<int>{kSpare, -kMouse}));

    cdevio.set_active(false);
    cdevio.set_active(true);
    ASSERT_TRUE(host.wait_idle(5000ms));
    EXPECT_EQ(ledger.events(), (std::vector<int>{kSpare, -kMouse}));
    const auto now = cdevio.devices();
    EXPECT_EQ(with_pid(now, kKbd), with_pid(devices, kKbd)) << "a device object was replaced";
    EXPECT_EQ(pids(now), (std::vector<int>{kKbd, kBall, kSpare, kDongle}));
}

// A receiver that counts more paired devices than it announces is asked
// three times, each mismatch reported; the devices it did announce are
// there all the same.
TEST_F(Story, ReceiverCountingMoreThanItAnnouncesIsAskedThreeTimes) {
    start(false);
    struct Errors : devio::Subscriber<devio::IDeviceManager::UnreportedError> {
        std::mutex mutex;
        std::vector<std::string> where;
        void onUnreportedError(const char* w, devio::ErrorCode err, const char*,
                               unsigned long) override {
            std::lock_guard<std::mutex> lock(mutex);
            where.push_back(std::string(w) + " " + std::to_string(err));
        }
    } errors;
    ASSERT_TRUE(errors.subscribe(cdevio.manager(), devio::DeliveryDirect));
    ASSERT_EQ(sim->command("fault dongle overcount 1"), "ok\novercount 1");
    ASSERT_EQ(sim->command("plug dongle"), "ok");
    ASSERT_TRUE(eventually([&] { return ledger.size() == 4; }, 10000ms));
    EXPECT_EQ(ledger.events(), (std::vector<int>{kDongle, kKbd, kMouse, kBall}));
    ASSERT_TRUE(host.wait_idle(5000ms));
    EXPECT_EQ(errors.where, std::vector<std::string>(3, "BraidBus 65"));
    errors.unsubscribe(cdevio.manager());
}

// A receiver that answers nothing for a while after it is plugged in is
// announced at once; its enumeration gives up after the engine's full round
// of time-outs (11 x 3 s, all within the silence), and the retry timer adds
// its bus 2 s later, when it answers again.
TEST_F(Story, SlowReceiverIsAddedByTheRetryTimer) {
    start(false);
    ASSERT_EQ(sim->command("fault dongle silent 32000"), "ok\nsilent 32000");
    const auto plugged = devio::test::Clock::now();
    ASSERT_EQ(sim->command("plug dongle"), "ok");
    ASSERT_TRUE(eventually([&] { return ledger.size() >= 1; }, 10000ms));
    EXPECT_EQ(ledger.events(), std::vector<int>{kDongle});
    ASSERT_TRUE(eventually([&] { return ledger.size() == 4; }, 90000ms));
    EXPECT_EQ(ledger.events(), (std::vector<int>{kDongle, kKbd, kMouse, kBall}));
    // Not from the first enumeration, which could not end before 33 s.
    EXPECT_GE(devio::test::ms_since(plugged), 35000);
}

}  // namespace
}  // namespace rcvtest
