// A bounded fuzz run of the read path of a receiver and of a device behind
// it: seeded random reports of every kind and length (both protocol
// versions, error reports, notifications, the receiver's own reports, 0 to
// 64 bytes) go into the receiver's read handler while a command waits on
// each. The receiver's slots change exactly as its arrival and removal
// reports say, and a waiter is only ever completed by its own answer.

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <random>
#include <thread>

#include "Base/ErrorRecord.h"
#include "Bus/Braid/BraidBus.h"
#include "Bus/Braid/BraidDevice.h"
#include "Bus/Combiner/CombinerBus.h"
#include "ReceiverRig.h"
#include "SimHost.h"

namespace rcvtest {
namespace {

using devio::Byte;
using Bytes = std::vector<Byte>;

// Plug and unplug events of the bus, as "+index:qid" and "-index".
struct Slots : devio::Subscriber<devio::IHardwareBus::PlugUnplug> {
    std::vector<std::string> events;
    std::mutex mutex;
    void onPlug(const std::shared_ptr<devio::IHardwareDevice>& d) override {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back("+" + std::to_string(d->busport() - 1) + ":" + std::to_string(d->pid()));
    }
    void onUnplug(const std::shared_ptr<devio::IHardwareDevice>& d) override {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back("-" + std::to_string(d->busport() - 1));
    }
    std::vector<std::string> take() {
        std::lock_guard<std::mutex> lock(mutex);
        return std::move(events);
    }
};

template <class T, std::size_t N>
T pick(std::mt19937& g, const T (&from)[N]) {
    return from[g() % N];
}

Bytes random_report(std::mt19937& g, const Bytes& receiver_cmd, const Bytes& device_cmd) {
    static const Byte kIds[] = {0x10, 0x10, 0x11, 0x12, 0x00};
    static const Byte kIndices[] = {0x00, 0x01, 0x02, 0x03, 0x06, 0x07, 0xFF, 0xFE};
    static const Byte kSubIds[] = {0x40, 0x41, 0x4A, 0x49, 0x4B, 0x80, 0x81,
                                   0x83, 0x8F, 0xFF, 0x00, 0x03, 0x07};
    static const Byte kThird[] = {0x04, 0x02, 0x00, 0x1A, 0x81, 0x03, 0x0A};
    static const std::size_t kLengths[] = {0, 1, 3, 4, 6, 7, 7, 7, 8, 19, 20, 20, 21, 64};
    switch (g() % 8) {
        case 0:  // the answer to a waiter, or an error answer to it
        case 1: {
            Bytes r = (g() % 2) ? receiver_cmd : device_cmd;
            if (r[1] != 0xFF) r[1] = 0x01;  // a paired device answers with its number
            if (g() % 3 == 0) {
                const Byte error_id = g() % 2 ? 0x8F : 0xFF;
                r = {r[0], r[1], error_id, r[2], r[3], static_cast<Byte>(g() % 12), 0};
            }
            for (std::size_t i = 4; i < r.size() && g() % 2; ++i) r[i] = static_cast<Byte>(g());
            return r;
        }
        default: {
            const std::size_t len = g() % 4 ? kLengths[g() % 14] : g() % 65;
            Bytes r(len);
            for (auto& b : r) b = static_cast<Byte>(g());
            if (len > 0 && g() % 4) r[0] = pick(g, kIds);
            if (len > 1 && g() % 4) r[1] = pick(g, kIndices);
            if (len > 2 && g() % 4) r[2] = pick(g, kSubIds);
            if (len > 3 && g() % 2) r[3] = pick(g, kThird);
            return r;
        }
    }
}

TEST(ReadPathFuzz, RandomReportsChangeSlotsOnlyAsTheySayAndCompleteNoWrongWaiter) {
    simtest::SimMachine sim(desk(true));
    auto stack =
        std::make_shared<devio::CombinerBus>(sim.bus(), std::weak_ptr<devio::IDeviceManager>());
    std::shared_ptr<devio::IHardwareDevice> hw;
    for (const auto& d : stack->devices()) {
        if (d->pid() == kDongle) hw = d;
    }
    ASSERT_TRUE(hw);
    const devio::ExchangeTiming quick{
        .response_timeout_ms = 50, .retries = 1, .ping_delay_ms = 1, .ping_jitter_ms = 0};
    auto bus = std::make_shared<devio::BraidBus>(hw, nullptr, 6, 4, quick);
    bus->initDevice(nullptr);
    Slots slots;
    ASSERT_TRUE(
        slots.subscribe(std::static_pointer_cast<devio::IHardwareBus>(bus), devio::DeliveryDirect));
    const auto paired = bus->devices();
    ASSERT_EQ(paired.size(), 3u);
    auto kbd = std::make_shared<devio::Device>(paired[0], quick);
    kbd->initDevice(nullptr);
    // From here on nothing answers: only the fuzzed reports can.
    ASSERT_EQ(sim.command("fault dongle drop on"), "ok\ndrop on");
    ASSERT_EQ(sim.command("fault kbd drop on"), "ok\ndrop on");

    const Bytes receiver_cmd{0x10, 0xFF, 0x81, 0x02, 0x00, 0x00, 0x00};
    const Bytes device_cmd{0x10, 0xFF, 0x03, 0x1A, 0x00, 0x00, 0x00};
    std::atomic<bool> stop{false};
    std::atomic<int> completed{0}, wrong{0};
    auto waiter = [&](devio::Device& device, const Bytes& command) {
        while (!stop) {
            Bytes answer;
            if (!device.sendSynchronousCommand(command, answer, 0, {})) continue;
            ++completed;
            // Above the receiver, a device's answers carry "the device itself".
            if (answer.size() < 7 || answer[1] != 0xFF || answer[2] != command[2] ||
                answer[3] != command[3])
                ++wrong;
        }
    };
    std::thread receiver_waiter(waiter, std::ref(static_cast<devio::Device&>(*bus)), receiver_cmd);
    std::thread device_waiter(waiter, std::ref(*kbd), device_cmd);

    std::map<unsigned, unsigned> model{{0, kKbd}, {1, kMouse}, {2, kBall}};
    std::mt19937 g(0x25);
    int mismatches = 0;
    for (int i = 0; i < 20000 && mismatches < 5; ++i) {
        const Bytes r = random_report(g, receiver_cmd, device_cmd);
        std::vector<std::string> expect;
        if (r.size() >= 7 && r[1] >= 1 && r[1] <= 6) {
            const unsigned index = r[1] - 1u;
            if (r[2] == 0x41 && r[3] == 4) {
                const unsigned qid = r[5] + r[6] * 256u;
                const auto at = model.find(index);
                if (at != model.end() && at->second != qid)
                    expect.push_back("-" + std::to_string(index));
                if (at == model.end() || at->second != qid)
                    expect.push_back("+" + std::to_string(index) + ":" + std::to_string(qid));
                model[index] = qid;
            } else if (r[2] == 0x40 && r[3] == 2) {
                expect.push_back("-" + std::to_string(index));
                model.erase(index);
            }
        }
        bus->onRead(r, false, 0, static_cast<unsigned>(r.size()));
        if (slots.take() != expect) ++mismatches;
        EXPECT_EQ(mismatches, 0) << "report " << i;
    }
    stop = true;
    receiver_waiter.join();
    device_waiter.join();
    EXPECT_EQ(wrong, 0);
    // The run did give the waiters their answers now and then.
    EXPECT_GT(completed, 0);
    slots.unsubscribe(std::static_pointer_cast<devio::IHardwareBus>(bus));
    kbd->uninitDevice();
    bus->uninitDevice();
}

}  // namespace
}  // namespace rcvtest
