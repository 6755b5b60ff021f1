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
// The device answers this late; serial commands are at least this far apart.
constexpr int kAnswerDelayMs = 100;
// A command's mark is taken when its write event reaches the recorder, which
// on a loaded machine can trail the write itself by many milliseconds. Half
// the answer delay absorbs that, and a second sender barging into an open
// exchange still lands inside the window with every other try.
constexpr int kMinGapMs = kAnswerDelayMs / 2;
const std::string kDelayFault = "fault mouse delay " + std::to_string(kAnswerDelayMs) + " on";

std::size_t writes_in(const std::vector<Mark>& marks) {
    std::size_t n = 0;
    for (const Mark& m : marks) n += m.is_write;
    return n;
}

void send_pings(devio::Device& dev, std::uint8_t first, int& failed) {
    for (int i = 0; i < kPerSender; ++i) {
        Bytes answer;
        const auto echo = static_cast<std::uint8_t>(first + i);
        if (!dev.sendSynchronousCommand(ping_report(echo), answer, 0, {2}) ||
            answer.at(6) != echo) {
            ++failed;
        }
    }
}

TEST(Serial, TwoThreadsNeverInterleaveAnExchange) {
    DeviceRig rig(false);
    // Slow answers keep each exchange open long enough for a second sender
    // to barge in if it could.
    rig.sim(kDelayFault);
    int failed_a = 0, failed_b = 0;
    std::thread a([&] { send_pings(*rig.dev, 0x20, failed_a); });
    std::thread b([&] { send_pings(*rig.dev, 0x60, failed_b); });
    a.join();
    b.join();
    EXPECT_EQ(failed_a + failed_b, 0);
    std::vector<Mark> marks = exchange_marks(rig.rec, 1);
    EXPECT_EQ(writes_in(marks), 2u * kPerSender);
    EXPECT_EQ(check_serial(marks, kMinGapMs), "");
}

TEST(Serial, TwoProcessesNeverInterleaveAnExchange) {
    DeviceRig rig(false);
    rig.sim(kDelayFault);
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
    EXPECT_EQ(writes_in(theirs), std::size_t{kPerSender});
    marks.insert(marks.end(), theirs.begin(), theirs.end());
    EXPECT_EQ(check_serial(marks, kMinGapMs), "");
}

}  // namespace
}  // namespace devtest
