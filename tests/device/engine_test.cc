// The command engine against a simulated mouse, through the real binding:
// retries over lost answers, error bytes, the cache and abandon.

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "Base/ErrorRecord.h"
#include "DeviceRig.h"

namespace devtest {
namespace {

using devio::ErrorCode;

// For each failed exchange, the milliseconds until the next report went out:
// the backoff before a retry's ping, or nothing much before a resend.
std::vector<long long> gaps_after_failures(Recorder& rec) {
    const auto events = rec.events();
    std::vector<long long> gaps;
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (!events[i].is_write || !events[i].report.empty()) continue;
        for (std::size_t j = i + 1; j < events.size(); ++j) {
            if (events[j].is_write && !events[j].report.empty()) {
                gaps.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(events[j].at -
                                                                                     events[i].at)
                                   .count());
                break;
            }
        }
    }
    return gaps;
}

// A lost answer, or one under another program's software id, costs one
// time-out. A device with features is then pinged before the command goes
// out again; one without is sent the command again at once. The first case
// runs on the product's timing: a time-out of 3000 ms, and a first backoff
// of 20 ms plus a jitter below 500 ms.
TEST(Engine, MissingAnswersAreRetried) {
    struct Case {
        const char* fault;
        bool feature_based;
        std::size_t misses;
        devio::ExchangeTiming timing;
    };
    for (const Case& c : {Case{"fault mouse drop 1", true, 1, {}},
                          Case{"fault mouse swid 3 1", true, 1, kQuickExchanges},
                          Case{"fault mouse drop 2", false, 2, kQuickExchanges}}) {
        SCOPED_TRACE(c.fault);
        DeviceRig rig(c.feature_based, false, kMouseMachine, c.timing);
        rig.sim(c.fault);
        Bytes answer;
        const auto start = Clock::now();
        ASSERT_TRUE(rig.dev->sendSynchronousCommand(get_feature_0020(), answer, 0, {}));
        const long long took = ms_since(start);
        const auto misses = static_cast<long long>(c.misses);
        EXPECT_GE(took, (c.timing.response_timeout_ms - 100) * misses);
        EXPECT_LT(took, (c.timing.response_timeout_ms + 5000) * misses);
        EXPECT_EQ(answer.at(4), kCookieIndex);
        EXPECT_EQ(rig.rec.failures(), std::vector<ErrorCode>(c.misses, devio::NoResponse));
        const auto sent = rig.rec.sent();
        ASSERT_EQ(sent.size(), 3u);
        EXPECT_EQ(sent[0], sent[2]) << "the command goes out again";
        if (c.feature_based) {
            EXPECT_EQ(sent[1][2], 0x00);
            EXPECT_EQ(sent[1][3] >> 4, 1) << "root function 1 is the ping";
            EXPECT_GE(sent[1][6], 16);
            EXPECT_EQ(answer.at(3) & 0x0F, rig.dev->swid());
            EXPECT_NE(rig.dev->swid(), 3u);
            const auto gaps = gaps_after_failures(rig.rec);
            ASSERT_EQ(gaps.size(), 1u);
            EXPECT_GE(gaps[0], c.timing.ping_delay_ms << 1);
            EXPECT_LT(gaps[0], (c.timing.ping_delay_ms << 1) + c.timing.ping_jitter_ms + 1500);
        } else {
            EXPECT_EQ(sent[1], sent[0]) << "no ping without features";
            EXPECT_EQ(sent[0][3] & 0x0F, 0) << "the caller's software id is left alone";
        }
    }
}

TEST(Engine, ErrorBytesRetryOrFailAtOnce) {
    struct Case {
        int version;
        int byte;
        ErrorCode err;
        bool soft;
    };
    const Case cases[] = {
        {1, 7, devio::Vxp10Error7, true},           {1, 9, devio::Vxp10Error9, true},
        {2, 8, devio::Vxp20Error8, true},           {1, 1, devio::Vxp10Error1, false},
        {1, 12, devio::Vxp10Error12, false},        {1, 13, devio::Vxp10ErrorUnknown, false},
        {2, 2, devio::Vxp20Error2, false},          {2, 7, devio::Vxp20Error7, false},
        {2, 9, devio::Vxp20Error9, false},          {2, 10, devio::Vxp20ErrorUnknown, false},
        {2, 0x7F, devio::Vxp20ErrorUnknown, false},
    };
    DeviceRig rig;
    for (const Case& c : cases) {
        SCOPED_TRACE("version " + std::to_string(c.version) + " byte " + std::to_string(c.byte));
        rig.rec.clear();
        rig.sim("fault mouse error " + std::to_string(c.version) + " " + std::to_string(c.byte) +
                " 1");
        Bytes answer;
        devio::set_error(devio::Success);
        const auto start = Clock::now();
        const bool ok = rig.dev->sendSynchronousCommand(get_feature_0020(), answer, 0, {});
        EXPECT_LT(ms_since(start), 2500) << "an error report is an answer, not a time-out";
        EXPECT_EQ(rig.rec.failures(), std::vector<ErrorCode>{c.err});
        if (c.soft) {
            EXPECT_TRUE(ok);
            EXPECT_EQ(rig.rec.sent().size(), 3u) << "command, ping, command";
        } else {
            EXPECT_FALSE(ok);
            EXPECT_EQ(devio::error_record().err, c.err);
            EXPECT_EQ(devio::error_record().sys, static_cast<unsigned>(c.byte));
            EXPECT_EQ(devio::error_record().str, nullptr);
            EXPECT_EQ(rig.rec.sent().size(), 1u);
        }
    }
}

TEST(Engine, MismatchedPayloadDoesNotComplete) {
    DeviceRig rig(false, false, kMouseMachine, kQuickExchanges);
    Bytes answer;
    ASSERT_TRUE(rig.dev->sendSynchronousCommandWithoutRetry(ping_report(0x21), answer, {2}, true));
    EXPECT_EQ(answer.at(6), 0x21);
    // The answer's report event follows the waiter's wake-up.
    ASSERT_TRUE(rig.rec.wait_reports(devio::IDevice::ReportResponse, 1));
    rig.rec.clear();

    // The device answers the next ping with the previous one's echo.
    rig.sim("fault mouse late 1");
    devio::set_error(devio::Success);
    const auto start = Clock::now();
    EXPECT_FALSE(rig.dev->sendSynchronousCommandWithoutRetry(ping_report(0x22), answer, {2}, true));
    EXPECT_EQ(devio::error_record().err, devio::NoResponse);
    EXPECT_GE(ms_since(start), kQuickExchanges.response_timeout_ms - 100);
    bool stale_seen = false;
    for (const auto& e : rig.rec.events()) {
        if (!e.is_write && e.report.at(6) == 0x21) {
            stale_seen = true;
            EXPECT_EQ(e.type, devio::IDevice::ReportOtherSoftware);
        }
    }
    EXPECT_TRUE(stale_seen);

    // Without the payload position the same stale answer would have done.
    rig.sim("fault mouse late 1");
    ASSERT_TRUE(rig.dev->sendSynchronousCommandWithoutRetry(ping_report(0x23), answer, {}, true));
    EXPECT_NE(answer.at(6), 0x23);
}

TEST(Engine, CachedCommandAnswersWithoutTrafficUnderTheCurrentSwid) {
    DeviceRig rig;
    Bytes first;
    ASSERT_TRUE(rig.dev->sendSynchronousCommand(get_feature_0020(), first, 1, {}));
    const unsigned swid = rig.dev->swid();
    EXPECT_EQ(first.at(3) & 0x0F, swid);
    ASSERT_TRUE(rig.rec.wait_reports(devio::IDevice::ReportResponse, 1));

    rig.sim("unplug mouse");
    // The failed read of the unplug is reported on its own time; let it land
    // before watching for traffic.
    ASSERT_TRUE(rig.rec.wait_reports(devio::IDevice::ReportIgnored, 1));
    rig.rec.clear();
    Bytes again;
    const auto start = Clock::now();
    ASSERT_TRUE(rig.dev->sendSynchronousCommand(get_feature_0020(), again, 1, {}));
    EXPECT_LT(ms_since(start), 1500) << "far below one time-out: nothing went to the device";
    EXPECT_EQ(again, first);
    EXPECT_TRUE(rig.rec.events().empty()) << "a cache hit touches nothing";

    // Any software id in the caller's nibble finds the same entry.
    Bytes other = get_feature_0020();
    other[3] = 0x07;
    ASSERT_TRUE(rig.dev->sendSynchronousCommand(other, again, 1, {}));
    EXPECT_EQ(again.at(3) & 0x0F, swid);

    // Not asked for the cache, the device must answer: it is gone.
    EXPECT_FALSE(rig.dev->sendSynchronousCommandWithoutRetry(get_feature_0020(), again, {}, true));
}

TEST(Engine, AbandonWakesTheWaiterAtOnce) {
    DeviceRig rig;
    rig.sim("fault mouse drop on");
    auto waiter = std::async(std::launch::async, [&] {
        Bytes answer;
        const bool ok = rig.dev->sendSynchronousCommand(get_feature_0020(), answer, 0, {});
        return std::make_pair(ok, devio::error_record().err);
    });
    std::this_thread::sleep_for(300ms);
    const auto start = Clock::now();
    rig.dev->abandon();
    const auto [ok, err] = waiter.get();
    EXPECT_LT(ms_since(start), 1000);
    EXPECT_FALSE(ok);
    EXPECT_EQ(err, devio::Abandoned);

    rig.rec.clear();
    Bytes answer;
    EXPECT_FALSE(rig.dev->sendSynchronousCommand(get_feature_0020(), answer, 0, {}));
    EXPECT_EQ(devio::error_record().err, devio::Abandoned);
    EXPECT_TRUE(rig.rec.sent().empty()) << "nothing reaches the hardware after abandon";
}

// Neither a failed write nor a removed device is worth a retry or a time-out.
TEST(Engine, FailedWriteAndRemovedDeviceFailAtOnce) {
    DeviceRig rig(false);
    Bytes answer;
    ASSERT_TRUE(rig.dev->sendSynchronousCommand(get_feature_0020(), answer, 0, {}));
    rig.sim("fault mouse writes fail");
    devio::set_error(devio::Success);
    const auto start = Clock::now();
    EXPECT_FALSE(rig.dev->sendSynchronousCommand(get_feature_0020(), answer, 0, {}));
    EXPECT_LT(ms_since(start), 1500);
    const ErrorCode err = devio::error_record().err;
    EXPECT_NE(err, devio::Success);
    EXPECT_NE(err, devio::NoResponse);

    rig.sim("fault mouse writes normal");
    rig.dev->uninitDevice();
    rig.rec.clear();
    EXPECT_FALSE(rig.dev->sendSynchronousCommand(get_feature_0020(), answer, 0, {}));
    EXPECT_EQ(devio::error_record().err, devio::DeviceRemoved);
    EXPECT_TRUE(rig.rec.sent().empty());
}

// Eleven passes, the product's number, each a time-out and then a ping
// after a backoff that doubles. Nothing ever answers, so the time-out may be
// short.
TEST(Engine, DeviceThatNeverAnswersFailsAfterElevenPasses) {
    devio::ExchangeTiming timing = kQuickExchanges;
    timing.response_timeout_ms = 100;
    DeviceRig rig(true, false, kMouseMachine, timing);
    rig.sim("fault mouse drop on");
    Bytes answer;
    const auto start = Clock::now();
    EXPECT_FALSE(rig.dev->sendSynchronousCommand(get_feature_0020(), answer, 0, {}));
    const long long took = ms_since(start);
    EXPECT_EQ(devio::error_record().err, devio::NoResponse);
    EXPECT_EQ(devio::error_record().sys, 0u);
    // 11 time-outs, and backoffs of 2 + 4 + ... + 1024 ms.
    EXPECT_GE(took, 11 * timing.response_timeout_ms + 2046 - 50);
    EXPECT_LT(took, 11 * timing.response_timeout_ms + 2046 + 20000);
    const auto sent = rig.rec.sent();
    ASSERT_EQ(sent.size(), 11u);
    EXPECT_EQ(sent[0][3] >> 4, 0) << "the command itself goes out once";
    for (std::size_t i = 1; i < sent.size(); ++i) EXPECT_EQ(sent[i][3] >> 4, 1) << "ping " << i;
    EXPECT_EQ(rig.rec.failures(), std::vector<ErrorCode>(11, devio::NoResponse));
    const auto gaps = gaps_after_failures(rig.rec);
    ASSERT_EQ(gaps.size(), 10u) << "no ping after the last pass";
    for (std::size_t i = 0; i < gaps.size(); ++i) EXPECT_GE(gaps[i], 2 << i) << "backoff " << i;
}

}  // namespace
}  // namespace devtest
