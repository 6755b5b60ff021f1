// Two processes configuring devices behind one receiver never talk through
// it at once: the receiver counts commands that arrive while a paired
// device's answer to another is still on its way.

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <string>

#include "ReceiverRig.h"
#include "SimHost.h"

extern char** environ;

namespace rcvtest {
namespace {

using namespace std::chrono_literals;

int overlaps(simtest::SimMachine& sim) {
    const std::string list = sim.command("list");
    const std::string key = "commands overlapping an answer: ";
    const auto at = list.find(key);
    return at == std::string::npos ? -1 : std::stoi(list.substr(at + key.size()));
}

pid_t spawn(const std::string& qid, const std::string& rounds) {
    const char* argv[] = {RECEIVER_PEER, qid.c_str(), rounds.c_str(), nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, RECEIVER_PEER, nullptr, nullptr, const_cast<char**>(argv), environ) != 0)
        return -1;
    return pid;
}

int exit_code(pid_t pid) {
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

TEST(SharedMutex, TwoProcessesConfiguringDevicesBehindOneReceiverNeverInterleave) {
    simtest::SimMachine sim(desk(true));
    simtest::use_machine(sim);
    // Every answer of the paired devices takes 15 ms, a window that a
    // second sender would hit.
    for (const char* id : {"kbd", "mouse"})
        ASSERT_EQ(sim.command(std::string("fault ") + id + " delay 15 on"), "ok\ndelay 15 on");

    // The counter sees two commands sent without waiting for the answer.
    {
        const int node = sim.machine().hidrawOf("dongle");
        simtest::Host raw(sim, sim.path(node, "#col1"));
        ASSERT_TRUE(raw.open());
        ASSERT_TRUE(raw.write(simtest::hex("10 01 00 1A 00 00 33")));
        ASSERT_TRUE(raw.write(simtest::hex("10 02 00 1A 00 00 34")));
        ASSERT_TRUE(raw.next().has_value());
        ASSERT_TRUE(raw.next().has_value());
    }
    ASSERT_EQ(overlaps(sim), 1);

    const pid_t first = spawn("0x4B21", "15");
    const pid_t second = spawn("0x4C02", "15");
    ASSERT_GT(first, 0);
    ASSERT_GT(second, 0);
    EXPECT_EQ(exit_code(first), 0);
    EXPECT_EQ(exit_code(second), 0);
    EXPECT_EQ(overlaps(sim), 1) << "two processes talked through the receiver at once";
}

}  // namespace
}  // namespace rcvtest
