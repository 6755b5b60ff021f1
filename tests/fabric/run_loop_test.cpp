#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "FabricFixtures.h"
#include "Manager/CDevio.h"
#include "Manager/DeviceManager.h"
#include "RunLoopHost.h"
#include "TestSupport.h"

namespace devio::test {
namespace {

// Counts wake-ups without pumping: a host that has not started its loop.
class WakeCounter : public Subscriber<IDeviceManager::RunLoopEvent> {
public:
    void onRunLoopEvent() override { ++wakes; }
    std::atomic<int> wakes{0};
};

TEST(RunLoop, LateHostIsToldOfEveryWaitingEventAndRunsThemInOrder) {
    auto manager = cdevio.manager();
    ASSERT_TRUE(manager);
    auto journal = std::make_shared<Journal>();
    auto bus = std::make_shared<FabricBus>();
    PowerWatcher watcher(journal, "w");
    ASSERT_TRUE(watcher.subscribe(bus, DeliveryRunLoop));
    // Discarded events are gone for good, and the queue keeps working.
    for (int i = 0; i < 4; ++i) bus->power(1);
    cdevio.remove_runloop_events(nullptr, nullptr);
    bus->power(1);
    bus->power(0);
    bus->power(1);
    EXPECT_EQ(journal->size(), 0u);  // nobody pumps: everything waits

    WakeCounter counter;
    set_error(Success);
    EXPECT_FALSE(counter.subscribe(manager, DeliveryRunLoop)) << "the wake-up itself cannot wait";
    EXPECT_EQ(error_record().err, InternalError);
    EXPECT_NE(error_record().str, nullptr);
    ASSERT_TRUE(counter.subscribe(manager, DeliveryDirect));
    EXPECT_EQ(counter.wakes.load(), 3);  // told at once, inside subscribe

    RunLoopHost host;
    ASSERT_TRUE(host.start());
    ASSERT_TRUE(eventually([&] { return journal->size() == 3; }));
    ASSERT_TRUE(host.wait_idle(milliseconds(5000)));
    auto seen = journal->snapshot();
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].value, 1);
    EXPECT_EQ(seen[1].value, 0);
    EXPECT_EQ(seen[2].value, 1);
    for (const auto& e : seen) EXPECT_EQ(e.thread, host.thread_id());
}

// Many producing threads, two run-loop subscribers: every event arrives
// exactly once at each, on the host's thread, in each producer's order.
TEST(RunLoop, ConcurrentProducersDeliverExactlyOnceInOrder) {
    // The event carries (producer, number) through a capture of its own.
    struct Seen {
        std::mutex mutex;
        std::map<int, std::vector<int>> by_producer;
        std::atomic<int> total{0};
        std::atomic<bool> off_host{false};
    };
    class Recorder : public Subscriber<IHardwareBus::PlugUnplug> {
    public:
        void record(int producer, int number) {
            std::lock_guard<std::mutex> lock(seen.mutex);
            seen.by_producer[producer].push_back(number);
            ++seen.total;
        }
        Seen seen;
    };

    constexpr int kThreads = 4;
    constexpr int kEvents = 300;
    RunLoopHost host;
    ASSERT_TRUE(host.start());
    Recorder first, second;
    std::vector<std::shared_ptr<FabricBus>> buses;
    for (int t = 0; t < kThreads; ++t) {
        buses.push_back(std::make_shared<FabricBus>());
        ASSERT_TRUE(first.subscribe(buses.back(), DeliveryRunLoop));
        ASSERT_TRUE(second.subscribe(buses.back(), DeliveryRunLoop));
    }
    const auto host_thread = host.thread_id();
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t) {
        producers.emplace_back([&, t] {
            for (int n = 0; n < kEvents; ++n) {
                buses[t]->produce(
                    [t, n, host_thread](IHardwareBus::PlugUnplug* s) {
                        auto* recorder = static_cast<Recorder*>(s);
                        if (std::this_thread::get_id() != host_thread) {
                            recorder->seen.off_host = true;
                        }
                        recorder->record(t, n);
                    },
                    event_names::Win32BusPlugUnplug.onPowerChange);
            }
        });
    }
    for (auto& p : producers) p.join();
    for (Recorder* r : {&first, &second}) {
        ASSERT_TRUE(eventually([&] { return r->seen.total.load() == kThreads * kEvents; },
                               milliseconds(30000)));
    }
    ASSERT_TRUE(host.wait_idle(milliseconds(5000)));
    for (Recorder* r : {&first, &second}) {
        EXPECT_EQ(r->seen.total.load(), kThreads * kEvents);
        EXPECT_FALSE(r->seen.off_host.load());
        std::lock_guard<std::mutex> lock(r->seen.mutex);
        for (int t = 0; t < kThreads; ++t) {
            const auto& numbers = r->seen.by_producer[t];
            ASSERT_EQ(numbers.size(), static_cast<std::size_t>(kEvents));
            for (int n = 0; n < kEvents; ++n) ASSERT_EQ(numbers[n], n);
        }
    }
}

TEST(RunLoop, UnreportedErrorCarriesTheThreadsRecord) {
    class Listener : public Subscriber<IDeviceManager::UnreportedError> {
    public:
        void onUnreportedError(const char* where_, ErrorCode err_, const char* str_,
                               unsigned long sys_) override {
            ++calls;
            where = where_;
            err = err_;
            str = str_;
            sys = sys_;
        }
        int calls = 0;
        const char* where = nullptr;
        ErrorCode err = Success;
        const char* str = nullptr;
        unsigned long sys = 0;
    };
    Listener listener;
    ASSERT_TRUE(listener.subscribe(cdevio.manager(), DeliveryDirect));

    set_error(Success);
    cdevio.report_unreported_error("nothing wrong");
    EXPECT_EQ(listener.calls, 0);

    set_error(NoResponse, "no answer", 0x1234);
    cdevio.report_unreported_error("DeviceManager::test");
    ASSERT_EQ(listener.calls, 1);
    EXPECT_STREQ(listener.where, "DeviceManager::test");
    EXPECT_EQ(listener.err, NoResponse);
    EXPECT_STREQ(listener.str, "no answer");
    EXPECT_EQ(listener.sys, 0x1234u);
}

// A local facade goes the way the process's own does at exit: its manager
// and every event still queued go with it, without running.
TEST(RunLoop, FacadeDestructionReleasesTheManagerAndItsQueue) {
    std::weak_ptr<IDeviceManager> manager;
    auto ran = std::make_shared<std::atomic<int>>(0);
    std::weak_ptr<std::atomic<int>> queued_alive = ran;
    {
        CDevio facade;
        manager = facade.manager();
        ASSERT_FALSE(manager.expired());
        facade.enqueue_event_for_runloop([ran] { ++*ran; }, nullptr, nullptr, "queued");
        ran.reset();
        EXPECT_FALSE(queued_alive.expired());  // held by the queue
    }
    EXPECT_TRUE(manager.expired());
    EXPECT_TRUE(queued_alive.expired());  // dropped with the queue, never run
}

// The process exits while a thread still produces run-loop events and a host
// still pumps: every late call finds the facade marked destroyed and does
// nothing, and the exit is clean.
TEST(RunLoopDeathTest, ExitWhileThreadsStillProduceAndPump) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            // Leaked on purpose: they live through exit like the objects of
            // threads that a host never joined.
            auto* journal = new std::shared_ptr<Journal>(std::make_shared<Journal>());
            auto* bus = new std::shared_ptr<FabricBus>(std::make_shared<FabricBus>());
            auto* watcher = new PowerWatcher(*journal, "w");
            auto* host = new RunLoopHost;
            if (!host->start() || !watcher->subscribe(*bus, DeliveryRunLoop)) std::_Exit(3);
            std::thread([bus] {
                for (;;) {
                    (*bus)->power(1);
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                }
            }).detach();
            if (!eventually([&] { return (*journal)->size() > 20; })) std::_Exit(4);
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

// A direct handler may unsubscribe another subscriber of its producer while
// that one's run-loop handler runs and is about to produce on the same
// producer: waiting for it would hold both threads forever.
TEST(RunLoop, DirectHandlerUnsubscribesARunningLoopHandlerThatProducesOnTheSameBus) {
    auto bus = std::make_shared<FabricBus>();
    std::promise<void> loop_running, loop_may_produce;
    auto may_produce = loop_may_produce.get_future().share();
    std::atomic<int> loop_calls{0};

    class LoopHandler : public Subscriber<IHardwareBus::PlugUnplug> {
    public:
        std::function<void(bool)> on_power;
        void onPowerChange(bool standBy) override { on_power(standBy); }
    } loop;
    loop.on_power = [&](bool standBy) {
        if (loop_calls++ != 0 || standBy) return;
        loop_running.set_value();
        may_produce.wait();
        bus->power(1);  // blocks while the direct handler's delivery runs
    };
    class DirectHandler : public Subscriber<IHardwareBus::PlugUnplug> {
    public:
        std::function<void(bool)> on_power;
        void onPowerChange(bool standBy) override { on_power(standBy); }
    } direct;
    std::atomic<int> direct_calls{0};
    direct.on_power = [&](bool standBy) {
        if (!standBy || direct_calls++ != 0) return;
        loop_may_produce.set_value();
        // Let the loop handler reach the producer's lock first.
        std::this_thread::sleep_for(milliseconds(100));
        loop.unsubscribe(bus);
    };

    RunLoopHost host;
    ASSERT_TRUE(host.start());
    ASSERT_TRUE(loop.subscribe(bus, DeliveryRunLoop));
    ASSERT_TRUE(direct.subscribe(bus, DeliveryDirect));
    bus->power(0);
    ASSERT_EQ(loop_running.get_future().wait_for(std::chrono::seconds(5)),
              std::future_status::ready);
    auto producer = std::async(std::launch::async, [&] { bus->power(1); });
    if (producer.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        ADD_FAILURE() << "the producing thread and the pumping thread wait for each other";
        std::_Exit(1);  // both threads hold locks that unwinding would need
    }
    ASSERT_TRUE(host.wait_idle(milliseconds(5000)));
    EXPECT_EQ(loop_calls.load(), 1) << "nothing reaches an unsubscribed run-loop handler";
    host.stop();
}

}  // namespace
}  // namespace devio::test
