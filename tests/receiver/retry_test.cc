// The add-bus retries of receivers that refuse their enumeration: the
// delays are read from the retry timer's arming, which here only records
// them, and the test plays each expiry itself.

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "Base/Timer.h"
#include "Manager/DeviceManager.h"
#include "ReceiverRig.h"
#include "SimHost.h"

namespace rcvtest {
namespace {

using simtest::SimMachine;

// A retry timer that keeps its armings instead of running them.
class ArmingLog : public devio::Timer {
public:
    using Timer::Timer;
    bool start(int milliseconds) override {
        std::lock_guard<std::mutex> lock(mutex_);
        armings_.push_back(milliseconds);
        return true;
    }
    std::vector<int> armings() {
        std::lock_guard<std::mutex> lock(mutex_);
        return armings_;
    }

private:
    std::mutex mutex_;
    std::vector<int> armings_;
};

class LoggedManager : public devio::DeviceManager {
public:
    std::shared_ptr<ArmingLog> timer;

private:
    std::shared_ptr<devio::ITimer> makeRetryTimer(int id) override {
        timer = std::make_shared<ArmingLog>(id);
        return timer;
    }
};

struct Errors : devio::Subscriber<devio::IDeviceManager::UnreportedError> {
    std::vector<std::string> where;
    std::vector<devio::ErrorCode> codes;
    void onUnreportedError(const char* w, devio::ErrorCode err, const char*,
                           unsigned long) override {
        where.emplace_back(w);
        codes.push_back(err);
    }
};

const char* const kTwoReceivers = R"({"receivers": [
  {"id": "r1", "pid": "0xA101", "devices": [{"id": "k1", "qid": "0x4B21"}]},
  {"id": "r2", "pid": "0xA105", "devices": [{"id": "k2", "qid": "0x4C02"}]}]})";

// Both receivers refuse their register commands: both join one retry cycle
// armed once for 2 s. The second recovers during the cycle and leaves it;
// the first keeps failing through 8, 16, ... 1024 s, and the ninth retry
// gives up with two reports. A later plug starts over at 2 s.
TEST(Retry, DelaysOfAReceiverThatKeepsFailing) {
    SimMachine sim(kTwoReceivers);
    simtest::use_machine(sim);
    ASSERT_EQ(sim.command("fault r1 error 1 2 on"), "ok\nerror 1 2 on");
    ASSERT_EQ(sim.command("fault r2 error 1 2 on"), "ok\nerror 1 2 on");
    auto manager = std::make_shared<LoggedManager>();
    ASSERT_TRUE(manager->config_set(kReceiversActive, true));
    Errors errors;
    ASSERT_TRUE(errors.subscribe(manager, devio::DeliveryDirect));

    // The receivers arrive as devices; their buses wait.
    EXPECT_EQ(pids(manager->devices()), (std::vector<int>{0xA101, 0xA105}));
    ASSERT_TRUE(manager->timer);
    EXPECT_EQ(manager->timer->armings(), std::vector<int>{2000});

    const std::vector<int> cycle{2000, 8000, 16000, 32000, 64000, 128000, 256000, 512000, 1024000};
    for (int retry = 1; retry <= 9; ++retry) {
        SCOPED_TRACE(retry);
        if (retry == 3) {
            ASSERT_EQ(sim.command("fault r2 clear"), "ok\nnone");
        }
        EXPECT_TRUE(errors.where.empty());
        manager->onTimerEvent(1);
        const auto armed = manager->timer->armings();
        const std::size_t expect = retry < 9 ? retry + 1 : 9;
        ASSERT_EQ(armed.size(), expect);
        EXPECT_EQ(armed, std::vector<int>(cycle.begin(), cycle.begin() + expect));
    }
    EXPECT_EQ(errors.where, (std::vector<std::string>{
                                "BraidBus", "DeviceManager::addBus retry failed all attempts"}));
    EXPECT_EQ(errors.codes,
              (std::vector<devio::ErrorCode>{devio::EnumerationFailed, devio::EnumerationFailed}));
    // The recovered receiver's device came in; the other's never did.
    EXPECT_EQ(pids(manager->devices()), (std::vector<int>{0x4C02, 0xA101, 0xA105}));
    // An expiry after giving up finds nothing to do.
    manager->onTimerEvent(1);
    EXPECT_EQ(manager->timer->armings().size(), 9u);

    // Rebuilding the stack plugs the receivers again: a new cycle at 2 s.
    ASSERT_TRUE(manager->config_set(5, true));
    EXPECT_EQ(manager->timer->armings().back(), 2000);
    EXPECT_EQ(manager->timer->armings().size(), 10u);
    errors.unsubscribe(manager);
}

}  // namespace
}  // namespace rcvtest
