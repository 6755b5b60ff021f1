#include "Base/Timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "RunLoopHost.h"
#include "TestSupport.h"

namespace devio::test {
namespace {

// Notes each expiry: which timer, on which thread, and when.
class Expiries : public Subscriber<ITimer::TimerEvent> {
public:
    struct Fired {
        int id;
        std::thread::id thread;
        Clock::time_point when;
    };
    void onTimerEvent(int id) override {
        std::lock_guard<std::mutex> lock(mutex);
        fired.push_back(Fired{id, std::this_thread::get_id(), Clock::now()});
    }
    std::vector<Fired> all() {
        std::lock_guard<std::mutex> lock(mutex);
        return fired;
    }
    std::size_t count() { return all().size(); }

private:
    std::mutex mutex;
    std::vector<Fired> fired;
};

TEST(Timer, FiresOnceWithItsIdAndZeroFiresAtOnce) {
    auto timer = std::make_shared<Timer>(7);
    Expiries expiries;
    ASSERT_TRUE(expiries.subscribe(timer, DeliveryDirect));

    const auto armed = Clock::now();
    EXPECT_TRUE(timer->start(300));
    ASSERT_TRUE(eventually([&] { return expiries.count() == 1; }));
    auto first = expiries.all()[0];
    EXPECT_EQ(first.id, 7);
    EXPECT_NE(first.thread, std::this_thread::get_id());
    EXPECT_GE(first.when - armed, milliseconds(290));
    std::this_thread::sleep_for(milliseconds(400));
    EXPECT_EQ(expiries.count(), 1u);  // one-shot

    // A reset after expiry re-arms for a full interval.
    EXPECT_TRUE(timer->reset(0));
    ASSERT_TRUE(eventually([&] { return expiries.count() == 2; }, milliseconds(2000)));
    EXPECT_TRUE(timer->start(0));
    ASSERT_TRUE(eventually([&] { return expiries.count() == 3; }, milliseconds(2000)));
}

TEST(Timer, StopAndDestructionCancelWithoutALateEvent) {
    Expiries expiries;
    {
        auto fresh = std::make_shared<Timer>(1);
        EXPECT_TRUE(fresh->stop());  // never armed: returns at once
        EXPECT_TRUE(fresh->stop());
    }
    auto timer = std::make_shared<Timer>(1);
    ASSERT_TRUE(expiries.subscribe(timer, DeliveryDirect));
    timer->start(400);
    std::this_thread::sleep_for(milliseconds(50));  // first half
    EXPECT_TRUE(timer->stop());
    timer->start(400);
    std::this_thread::sleep_for(milliseconds(300));  // second half
    EXPECT_TRUE(timer->stop());
    EXPECT_TRUE(timer->stop());

    // Re-armed in its second half: the old interval never fires.
    const auto armed = Clock::now();
    timer->start(400);
    std::this_thread::sleep_for(milliseconds(300));
    timer->start(400);
    ASSERT_TRUE(eventually([&] { return expiries.count() == 1; }));
    EXPECT_GE(expiries.all()[0].when - armed, milliseconds(690));

    // Destroyed while armed, in either half.
    for (int wait : {50, 300}) {
        auto doomed = std::make_shared<Timer>(2);
        ASSERT_TRUE(expiries.subscribe(doomed, DeliveryDirect));
        doomed->start(400);
        std::this_thread::sleep_for(milliseconds(wait));
        doomed.reset();
    }
    std::this_thread::sleep_for(milliseconds(600));
    EXPECT_EQ(expiries.count(), 1u);
}

// A kick in the first half of the running interval changes nothing; the
// first kick past the half restarts the interval, and kicks that keep coming
// faster than half the interval postpone the event for as long as they come.
TEST(Timer, ResetRestartsTheIntervalOnlyPastItsHalf) {
    auto timer = std::make_shared<Timer>(3);
    Expiries expiries;
    ASSERT_TRUE(expiries.subscribe(timer, DeliveryDirect));
    auto armed = Clock::now();
    timer->reset(2000);  // a fresh timer: arms it
    // Kicks in the first half, each checked against the clock right before
    // it, so that a slow machine does not push one past the half.
    auto lastKick = armed;
    for (;;) {
        std::this_thread::sleep_for(milliseconds(100));
        if (Clock::now() - armed >= milliseconds(900)) break;
        lastKick = Clock::now();
        timer->reset(2000);
    }
    ASSERT_TRUE(eventually([&] { return expiries.count() == 1; }));
    const auto fired = expiries.all()[0].when;
    EXPECT_GE(fired - armed, milliseconds(1990));
    // Had the last kick restarted the interval, the event would come 2000 ms
    // after it; the rest of the margin is for a slow timer thread.
    EXPECT_LT(fired - lastKick, milliseconds(1900));

    timer->reset(2000);  // expired: arms it again
    std::this_thread::sleep_for(milliseconds(1400));
    const auto kicked = Clock::now();
    timer->reset(2000);
    std::this_thread::sleep_for(milliseconds(1300));  // past the first 2000
    EXPECT_EQ(expiries.count(), 1u);
    ASSERT_TRUE(eventually([&] { return expiries.count() == 2; }));
    EXPECT_GE(expiries.all()[1].when - kicked, milliseconds(1990));

    armed = Clock::now();
    // Kicks every 100 ms against a 1000 ms interval: only a stall of most of
    // a second would let it expire.
    while (Clock::now() - armed < milliseconds(2500)) {
        timer->reset(1000);
        std::this_thread::sleep_for(milliseconds(100));
    }
    EXPECT_EQ(expiries.count(), 2u);
    ASSERT_TRUE(eventually([&] { return expiries.count() == 3; }));
}

// The owner's pattern: delivery 0, so the handler runs on the host's thread
// and may re-arm its own timer.
TEST(Timer, RunLoopHandlerMayRearmItsOwnTimer) {
    class Rearming : public Subscriber<ITimer::TimerEvent> {
    public:
        void onTimerEvent(int) override {
            std::lock_guard<std::mutex> lock(mutex);
            threads.push_back(std::this_thread::get_id());
            if (threads.size() < 3) timer->start(20);
        }
        std::size_t count() {
            std::lock_guard<std::mutex> lock(mutex);
            return threads.size();
        }
        std::shared_ptr<Timer> timer;
        std::mutex mutex;
        std::vector<std::thread::id> threads;
    };
    RunLoopHost host;
    ASSERT_TRUE(host.start());
    Rearming handler;
    handler.timer = std::make_shared<Timer>(5);
    ASSERT_TRUE(handler.subscribe(handler.timer, DeliveryRunLoop));
    handler.timer->start(20);
    ASSERT_TRUE(eventually([&] { return handler.count() == 3; }));
    std::this_thread::sleep_for(milliseconds(200));
    EXPECT_EQ(handler.count(), 3u);
    std::lock_guard<std::mutex> lock(handler.mutex);
    for (auto id : handler.threads) EXPECT_EQ(id, host.thread_id());
}

// A direct handler runs on the timer's thread, where stopping or re-arming
// the timer cannot join; it must come back instead of hanging.
TEST(Timer, DirectHandlerStoppingItsTimerDoesNotHang) {
    class Stopper : public Subscriber<ITimer::TimerEvent> {
    public:
        void onTimerEvent(int) override {
            ++calls;
            refused_rearm = !timer->start(10) && !timer->reset(10);
            timer->stop();
            done = true;
        }
        std::shared_ptr<Timer> timer;
        std::atomic<int> calls{0};
        std::atomic<bool> refused_rearm{false};
        std::atomic<bool> done{false};
    };
    Stopper handler;
    handler.timer = std::make_shared<Timer>(6);
    ASSERT_TRUE(handler.subscribe(handler.timer, DeliveryDirect));
    handler.timer->start(0);
    ASSERT_TRUE(eventually([&] { return handler.done.load(); }));
    EXPECT_TRUE(handler.refused_rearm.load());
    EXPECT_TRUE(handler.timer->stop());
    // Refused means not armed: nothing more arrives.
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_EQ(handler.calls.load(), 1);
}

// Several host threads arm, kick and stop one timer at once, as the command
// engine and the pumping thread do with a device's timers: the timer stays
// whole and still fires afterwards.
TEST(Timer, ArmedKickedAndStoppedFromSeveralThreadsAtOnce) {
    auto timer = std::make_shared<Timer>(3);
    Expiries expiries;
    ASSERT_TRUE(expiries.subscribe(timer, DeliveryDirect));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&timer, t] {
            for (int i = 0; i < 300; ++i) {
                switch ((i + t) % 3) {
                    case 0:
                        timer->start(i % 4);
                        break;
                    case 1:
                        timer->reset(i % 4);
                        break;
                    default:
                        timer->stop();
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    timer->stop();
    const auto before = expiries.count();
    EXPECT_TRUE(timer->start(10));
    ASSERT_TRUE(eventually([&] { return expiries.count() == before + 1; }));
}

}  // namespace
}  // namespace devio::test
