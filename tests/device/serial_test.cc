// Two threads, and two processes, sending to one device: their exchanges
// never interleave on the wire.

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "ExchangeLog.h"

extern char** environ;

namespace devtest {
namespace {

constexpr int kPerSender = 12;

void send_pings(devio::Device& dev, std::uint8_t first, int& failed) {
    for (int i = 0; i < kPerSender; ++i) {
        Bytes answer;
        const auto echo = static_cast<std::uint8_t>(first + i);
        if (!dev.sendSynchronousCommand(ping_report(echo), answer, 0, {2}) || answer.at(6) != echo) {
            ++failed;
        }
    }
}

TEST(Serial, TwoThreadsNeverInterleaveAnExchange) {
    DeviceRig rig(false);
    // Slow answers keep each exchange open long enough for a second sender
    // to barge in if it could.
    rig.sim("fault mouse delay 15 on");
    int failed_a = 0, failed_b = 0;
    std::thread a([&] { send_pings(*rig.dev, 0x20, failed_a); });
    std::thread b([&] { send_pings(*rig.dev, 0x60, failed_b); });
    a.join();
    b.join();
    EXPECT_EQ(failed_a + failed_b, 0);
    std::vector<Mark> marks = exchange_marks(rig.rec, 1);
    EXPECT_EQ(marks.size(), 4u * kPerSender);
    EXPECT_EQ(check_serial(marks), "");
}

TEST(Serial, TwoProcessesNeverInterleaveAnExchange) {
    DeviceRig rig(false);
    rig.sim("fault mouse delay 15 on");
    const std::string out = std::string(::getenv("TMPDIR") ? ::getenv("TMPDIR") : "/tmp") +
                            "/peer-" + std::to_string(::getpid()) + ".marks";
    const std::string node = rig.hw->path();
    const std::string count = std::to_string(kPerSender);
    std::vector<std::string> args{DEVICE_PEER,
                                  rig.machine.machine().sysfsRoot(),
                                  rig.machine.machine().devRoot(),
                                  node,
                                  count,
                                  "96",
                                  out};
    std::vector<char*> argv;
    for (auto& s : args) argv.push_back(s.data());
    argv.push_back(nullptr);
    pid_t child = 0;
    ASSERT_EQ(::posix_spawn(&child, DEVICE_PEER, nullptr, nullptr, argv.data(), environ), 0);

    int failed = 0;
    send_pings(*rig.dev, 0x20, failed);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the other process's commands failed";
    EXPECT_EQ(failed, 0);

    std::vector<Mark> marks = exchange_marks(rig.rec, 1);
    const std::vector<Mark> theirs = read_marks(out);
    ::unlink(out.c_str());
    EXPECT_EQ(theirs.size(), 2u * kPerSender);
    marks.insert(marks.end(), theirs.begin(), theirs.end());
    EXPECT_EQ(check_serial(marks), "");
}

}  // namespace
}  // namespace devtest
