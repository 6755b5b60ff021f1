// Software ids: another program answering under ours, and the device that
// answers one command late behind a receiver. (Answers under another id are
// among the engine's missing answers.)

#include <gtest/gtest.h>

#include <filesystem>

#include "Base/ErrorRecord.h"
#include "DeviceRig.h"

namespace devtest {
namespace {

using devio::IDevice;

TEST(Swid, AnotherProgramOnOurIdMakesUsSwitchAtTheNextPing) {
    DeviceRig rig;
    Bytes answer;
    ASSERT_TRUE(rig.dev->sendSynchronousCommand(get_feature_0020(), answer, 1, {}));
    const unsigned old_id = rig.dev->swid();
    ASSERT_GE(old_id, 10u);
    ASSERT_LE(old_id, 14u);

    // Another host writes the cookie under our id; its answer reaches us.
    rig.sim("cookie mouse 0x1234 " + std::to_string(old_id));
    ASSERT_TRUE(rig.rec.wait_reports(IDevice::ReportOtherSoftware, 1));
    const auto calls = rig.feature->calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_FALSE(calls[0].notification);
    EXPECT_EQ(calls[0].swid, old_id);

    // Until the next ping the engine refuses to send.
    rig.rec.clear();
    Bytes command = get_feature_0020();
    command[3] = static_cast<std::uint8_t>(old_id);
    EXPECT_FALSE(rig.dev->sendSynchronousCommandWithoutRetry(command, answer, {}, true));
    EXPECT_EQ(devio::error_record().err, devio::SwidCollision);
    EXPECT_TRUE(rig.rec.sent().empty());
    ASSERT_EQ(rig.rec.failures(), std::vector<devio::ErrorCode>{devio::SwidCollision});
    EXPECT_EQ(rig.rec.events()[0].value, old_id);

    // The retry pings under the id least used by others: all but ours are
    // unused, and the highest wins the tie.
    rig.rec.clear();
    ASSERT_TRUE(rig.dev->sendSynchronousCommand(get_feature_0020(), answer, 0, {}));
    EXPECT_EQ(rig.dev->swid(), 15u);
    const auto sent = rig.rec.sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0][3], 0x1F) << "ping under the new id";
    EXPECT_EQ(sent[1][3], 0x0F) << "command under the new id";
    EXPECT_EQ(answer.at(3) & 0x0F, 15);

    // The cache keeps its entry and answers under the new id.
    ASSERT_TRUE(rig.rec.wait_reports(IDevice::ReportResponse, 2));
    rig.rec.clear();
    ASSERT_TRUE(rig.dev->sendSynchronousCommand(get_feature_0020(), answer, 1, {}));
    EXPECT_TRUE(rig.rec.events().empty());
    EXPECT_EQ(answer.at(3) & 0x0F, 15);
}

TEST(Brb, OneBehindDeviceTriggersTheWorkaroundAndTheRetrySucceeds) {
    DeviceRig rig(true, true);
    Bytes answer;
    ASSERT_TRUE(rig.dev->sendSynchronousCommand(ping_report(0x21), answer, 0, {2}));

    // From now on every answer is the previous command's.
    rig.sim("fault mouse late on");
    rig.rec.clear();
    const auto start = Clock::now();
    ASSERT_TRUE(rig.dev->sendSynchronousCommand(get_feature_0020(), answer, 0, {}));
    EXPECT_LT(ms_since(start), 2500) << "the stale answer must not cost a time-out";
    EXPECT_EQ(answer.at(2), 0x00);
    EXPECT_EQ(answer.at(4), kCookieIndex);
    const auto failures = rig.rec.failures();
    ASSERT_FALSE(failures.empty());
    EXPECT_EQ(failures[0], devio::NoResponse);

    // With the workaround in force the next commands simply succeed.
    for (std::uint8_t echo : {0x40, 0x41, 0x42}) {
        rig.rec.clear();
        ASSERT_TRUE(rig.dev->sendSynchronousCommand(ping_report(echo), answer, 0, {2}));
        EXPECT_EQ(answer.at(6), echo);
        EXPECT_TRUE(rig.rec.failures().empty());
    }

    // All traffic through a receiver shares one machine-wide lock.
    bool found = false;
    for (const auto& entry :
         std::filesystem::directory_iterator(devio::NamedMutex::lockDirectory())) {
        found |= entry.path().filename() == "devio-VantBraid.lock";
    }
    EXPECT_TRUE(found);
}

}  // namespace
}  // namespace devtest
