#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <thread>

#include "FabricFixtures.h"
#include "Manager/CDevio.h"
#include "RunLoopHost.h"
#include "TestSupport.h"

namespace devio::test {
namespace {

TEST(EventFabric, OneSubscriberInBothSetsGetsEachEventTwiceDirectFirst) {
    RunLoopHost host;
    ASSERT_TRUE(host.start());
    auto journal = std::make_shared<Journal>();
    auto bus = std::make_shared<FabricBus>();
    PowerWatcher watcher(journal, "w");

    ASSERT_TRUE(bus->subscribe(&watcher, DeliveryDirect));
    ASSERT_TRUE(bus->subscribe(&watcher, DeliveryRunLoop));
    // Subscribing again into a set it already stands in changes nothing.
    ASSERT_TRUE(bus->subscribe(&watcher, DeliveryRunLoop));
    // An unknown delivery is accepted and ignored.
    ASSERT_TRUE(bus->subscribe(&watcher, 7));
    EXPECT_EQ(bus->on_subscribe_calls, 2);
    EXPECT_EQ(bus->added_deliveries, (std::vector<int>{1, 0}));
    EXPECT_EQ(bus->subscriber_count(), 2u);

    bus->power(1);
    ASSERT_TRUE(eventually([&] { return journal->size() == 2; }));
    ASSERT_TRUE(host.wait_idle(milliseconds(5000)));
    auto seen = journal->snapshot();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].thread, std::this_thread::get_id());
    EXPECT_EQ(seen[1].thread, host.thread_id());

    bus->unsubscribe(&watcher);
    EXPECT_EQ(bus->removed, 2);  // once per set left
    EXPECT_EQ(bus->subscriber_count(), 0u);
    bus->power(0);
    ASSERT_TRUE(host.wait_idle(milliseconds(5000)));
    EXPECT_EQ(journal->size(), 2u);
}

// The subscriber keeps one entry per producer: a second subscribe does not
// reach the producer, while a refusal or an unsubscribe leaves no entry.
TEST(EventFabric, SubscriberKnowsEachProducerOnceAndForgetsRefusals) {
    auto journal = std::make_shared<Journal>();
    auto bus = std::make_shared<FabricBus>();
    PowerWatcher watcher(journal, "w");
    std::shared_ptr<IHardwareBus> as_bus = bus;

    bus->refuse = true;
    set_error(Success);
    EXPECT_FALSE(watcher.subscribe(as_bus, DeliveryDirect));
    EXPECT_EQ(error_record().err, NotConnected);
    EXPECT_STREQ(error_record().str, "bus refused");
    EXPECT_FALSE(bus->subscribe(&watcher, DeliveryRunLoop));
    EXPECT_EQ(bus->subscriber_count(), 0u);
    EXPECT_TRUE(bus->added_deliveries.empty());
    bus->power(1);
    EXPECT_EQ(journal->size(), 0u);

    bus->refuse = false;
    EXPECT_TRUE(watcher.subscribe(as_bus, DeliveryDirect));
    EXPECT_EQ(bus->on_subscribe_calls, 3) << "the refusal was not remembered as a subscription";
    EXPECT_TRUE(watcher.subscribe(as_bus, DeliveryRunLoop));
    EXPECT_EQ(bus->on_subscribe_calls, 3) << "known producer, even with another delivery";
    bus->power(1);
    EXPECT_EQ(journal->size(), 1u);

    watcher.unsubscribe(as_bus);
    EXPECT_EQ(bus->subscriber_count(), 0u);
    ASSERT_TRUE(watcher.subscribe(as_bus, DeliveryDirect));
    EXPECT_EQ(bus->on_subscribe_calls, 4) << "unsubscribed means forgotten";

    struct NotAProducer : IHardwareBus {
        std::vector<std::shared_ptr<IHardwareDevice>> devices() override { return {}; }
    };
    EXPECT_FALSE(watcher.subscribe(std::make_shared<NotAProducer>(), DeliveryDirect));
    EXPECT_EQ(error_record().err, BadPointerCast);
    EXPECT_STREQ(error_record().str, "dynamic pointer cast in subscribe failed");
    EXPECT_EQ(error_record().sys, 0u);
}

TEST(EventFabric, DeadSubscriberIsNeverCalledAndItsQueuedEventsGo) {
    ASSERT_TRUE(cdevio.manager());  // the queue exists, but nobody pumps yet
    auto journal = std::make_shared<Journal>();
    auto bus = std::make_shared<FabricBus>();
    std::shared_ptr<IHardwareBus> as_bus = bus;
    auto leaving = std::make_unique<PowerWatcher>(journal, "leaving");
    auto leaving_direct = std::make_unique<PowerWatcher>(journal, "leaving_direct");
    PowerWatcher staying(journal, "staying");
    ASSERT_TRUE(leaving->subscribe(as_bus, DeliveryRunLoop));
    ASSERT_TRUE(leaving_direct->subscribe(as_bus, DeliveryDirect));
    ASSERT_TRUE(staying.subscribe(as_bus, DeliveryRunLoop));

    for (int i = 0; i < 3; ++i) bus->power(i % 2);
    EXPECT_EQ(journal->count("leaving_direct"), 3u);
    leaving.reset();
    leaving_direct.reset();
    EXPECT_EQ(bus->subscriber_count(), 1u);
    bus->power(1);

    RunLoopHost host;
    ASSERT_TRUE(host.start());
    ASSERT_TRUE(eventually([&] { return journal->count("staying") == 4; }));
    ASSERT_TRUE(host.wait_idle(milliseconds(5000)));
    EXPECT_EQ(journal->count("leaving"), 0u);
    EXPECT_EQ(journal->count("leaving_direct"), 3u);
}

TEST(EventFabric, ProducerDyingFirstLeavesSubscribersSafe) {
    ASSERT_TRUE(cdevio.manager());
    auto journal = std::make_shared<Journal>();
    auto bus = std::make_shared<FabricBus>();
    auto other_bus = std::make_shared<FabricBus>();
    auto keeps = std::make_unique<PowerWatcher>(journal, "keeps");
    auto dies = std::make_unique<PowerWatcher>(journal, "dies");
    ASSERT_TRUE(keeps->subscribe(bus, DeliveryRunLoop));
    ASSERT_TRUE(keeps->subscribe(other_bus, DeliveryDirect));
    ASSERT_TRUE(dies->subscribe(bus, DeliveryRunLoop));

    bus->power(1);  // queued for both
    bus.reset();
    other_bus.reset();
    // Its producer is gone, so the subscriber cannot be unsubscribed; its
    // queued event must still not outlive it.
    dies.reset();

    RunLoopHost host;
    ASSERT_TRUE(host.start());
    // An event already produced is still delivered to a live subscriber.
    ASSERT_TRUE(eventually([&] { return journal->count("keeps") == 1; }));
    ASSERT_TRUE(host.wait_idle(milliseconds(5000)));
    EXPECT_EQ(journal->count("dies"), 0u);
    keeps.reset();  // both producers dead: nothing to do, nothing fails
    EXPECT_EQ(journal->size(), 1u);
}

// Each handler leaves the producer while being delivered to; the walk over
// the set must survive its own node going away.
TEST(EventFabric, HandlersMayUnsubscribeThemselvesDuringDelivery) {
    class Leaver : public Subscriber<IHardwareBus::PlugUnplug> {
    public:
        Leaver(FabricBus* bus_, std::shared_ptr<Journal> journal_)
            : bus(bus_), journal(std::move(journal_)) {}
        void onPowerChange(bool) override {
            journal->add("leaver", 0);
            bus->unsubscribe(this);
        }
        FabricBus* bus;
        std::shared_ptr<Journal> journal;
    };
    auto journal = std::make_shared<Journal>();
    FabricBus bus;
    std::vector<std::unique_ptr<Leaver>> leavers;
    for (int i = 0; i < 5; ++i) {
        leavers.push_back(std::make_unique<Leaver>(&bus, journal));
        ASSERT_TRUE(bus.subscribe(leavers.back().get(), DeliveryDirect));
    }
    bus.power(1);
    EXPECT_EQ(journal->size(), 5u);
    EXPECT_EQ(bus.subscriber_count(), 0u);
    bus.power(1);
    EXPECT_EQ(journal->size(), 5u);
}

// After unsubscribe returns, no run-loop delivery of that producer may still
// be running in the subscriber on the pumping thread, and none may follow.
TEST(EventFabric, UnsubscribeWaitsForARunningRunLoopDelivery) {
    class Blocker : public Subscriber<IHardwareBus::PlugUnplug> {
    public:
        void onPowerChange(bool) override {
            std::unique_lock<std::mutex> lock(mutex);
            ++calls;
            entered.notify_all();
            release.wait(lock, [this] { return released; });
        }
        std::mutex mutex;
        std::condition_variable entered, release;
        int calls = 0;
        bool released = false;
    };
    RunLoopHost host;
    ASSERT_TRUE(host.start());
    auto bus = std::make_shared<FabricBus>();
    std::shared_ptr<IHardwareBus> as_bus = bus;
    Blocker blocker;
    ASSERT_TRUE(blocker.subscribe(as_bus, DeliveryRunLoop));
    bus->power(1);
    bus->power(0);  // still queued when the subscriber leaves
    {
        std::unique_lock<std::mutex> lock(blocker.mutex);
        ASSERT_TRUE(
            blocker.entered.wait_for(lock, milliseconds(5000), [&] { return blocker.calls == 1; }));
    }
    std::atomic<bool> left{false};
    std::thread leaver([&] {
        blocker.unsubscribe(as_bus);
        left = true;
    });
    std::this_thread::sleep_for(milliseconds(150));
    EXPECT_FALSE(left.load());
    {
        std::lock_guard<std::mutex> lock(blocker.mutex);
        blocker.released = true;
    }
    blocker.release.notify_all();
    leaver.join();
    EXPECT_TRUE(left.load());
    ASSERT_TRUE(host.wait_idle(milliseconds(5000)));
    std::lock_guard<std::mutex> lock(blocker.mutex);
    EXPECT_EQ(blocker.calls, 1);
}

}  // namespace
}  // namespace devio::test
