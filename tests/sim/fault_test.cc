// Each fault mode does what it says, seen from the host side of Win32Device.

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "Base/ErrorRecord.h"
#include "SimHost.h"

namespace simtest {
namespace {

const char* const kMachine = R"({
  "devices": [{"id": "mouse", "name": "Sim Mouse", "pid": "0xC08B", "cookie": "0x0101",
               "entities": [{"type": 0, "prefix": "MPM", "version": "0x1203", "build": "0x0045"}],
               "properties": [{"name": "dpi", "type": "int", "value": 800}]}],
  "receivers": [{"id": "dongle", "pid": "0xA101",
                 "devices": [{"id": "kbd", "name": "Sim Keyboard", "qid": "0x4B21", "slot": 1}]}]})";

// Feature indices of the default table: 2 firmware info, 5 cookie, 6
// battery, 7 wireless status, 8 properties. Pings carry software id A
// unless another is given.
Bytes ping(std::uint8_t echo) {
    Bytes r = hex("11 FF 00 1A 00 00", 20);
    r[6] = echo;
    return r;
}
Bytes pong(std::uint8_t echo, std::uint8_t swid = 0x0A) {
    Bytes r = hex("11 FF 00 00 04 00", 20);
    r[3] = static_cast<std::uint8_t>(0x10 | swid);
    r[6] = echo;
    return r;
}

class FaultTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(host.open()); }
    void command(const std::string& line) {
        ASSERT_EQ(sim.command(line).substr(0, 2), "ok") << line;
    }

    SimMachine sim{kMachine};
    Host host{sim, sim.path(0)};
};

TEST_F(FaultTest, AnswerFaultsAndTheirCounts) {
    // drop: the answers are lost, the commands carried out.
    command("fault mouse drop 2");
    ASSERT_TRUE(host.write(hex("11 FF 05 1A 22 33", 20)));
    ASSERT_TRUE(host.write(ping(0x41)));
    EXPECT_EQ(host.pending(), 0u) << "drop";
    EXPECT_EQ(host.exchange(hex("11 FF 05 0A", 20)), hex("11 FF 05 0A 22 33", 20)) << "drop";

    // late: each command gets the answer of the one before it; when the
    // count runs out, the device is in step again.
    EXPECT_EQ(host.exchange(ping(0x40)), pong(0x40));
    command("fault mouse late 2");
    EXPECT_EQ(host.exchange(ping(0x41)), pong(0x40)) << "late";
    EXPECT_EQ(host.exchange(ping(0x42)), pong(0x41)) << "late";
    EXPECT_EQ(host.exchange(ping(0x43)), pong(0x43)) << "late";
    EXPECT_EQ(host.pending(), 0u) << "late";

    // swid: the answer comes under another software id; in an error report
    // the software id sits one byte on.
    command("fault mouse swid 5 1");
    EXPECT_EQ(host.exchange(ping(0x41)), pong(0x41, 5)) << "swid";
    EXPECT_EQ(host.exchange(ping(0x42)), pong(0x42)) << "swid";
    command("fault mouse swid 3 1");
    EXPECT_EQ(host.exchange(hex("11 FF 30 0A", 20)), hex("11 FF FF 30 03 05", 20)) << "swid";

    // error: refused in either error form, not carried out.
    const Bytes setCookie = hex("11 FF 05 1A 77 77", 20);
    command("fault mouse error 1 9 1");
    EXPECT_EQ(host.exchange(setCookie), hex("11 FF 8F 05 1A 09", 20)) << "error";
    command("fault mouse error 2 8 1");
    EXPECT_EQ(host.exchange(setCookie), hex("11 FF FF 05 1A 08", 20)) << "error";
    EXPECT_EQ(host.exchange(hex("11 FF 05 0A", 20)), hex("11 FF 05 0A 22 33", 20)) << "error";
    EXPECT_EQ(sim.command("fault mouse show"), "ok\nnone");

    // delay: the answer is held back.
    command("fault mouse delay 400 1");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(host.exchange(ping(0x41)), pong(0x41)) << "delay";
    EXPECT_GE(std::chrono::steady_clock::now() - start, 350ms) << "delay";
    EXPECT_EQ(host.exchange(ping(0x42)), pong(0x42)) << "delay";
}

TEST_F(FaultTest, StalledAndFailedWrites) {
    // Stalled: taken, but not read until the stall ends.
    command("fault mouse writes stall");
    ASSERT_TRUE(host.write(ping(0x41)));
    EXPECT_EQ(host.pending(200ms), 0u);
    command("fault mouse writes normal");
    EXPECT_EQ(host.next(), pong(0x41));

    // Failed: the error is reported until the device is opened again.
    command("fault mouse writes fail");
    EXPECT_FALSE(host.write(ping(0x41)));
    EXPECT_EQ(devio::error_record().err, devio::WriteError);
    EXPECT_EQ(devio::error_record().sys, static_cast<std::uint32_t>(EPIPE));
    command("fault mouse writes normal");
    Host again(sim, sim.path(0));
    ASSERT_TRUE(again.open());
    EXPECT_EQ(again.exchange(ping(0x42)), pong(0x42));
}

TEST_F(FaultTest, HangupEndsTheConnectionButLeavesTheNode) {
    command("hangup mouse");
    EXPECT_TRUE(host.readFails());
    Host again(sim, sim.path(0));
    ASSERT_TRUE(again.open());
    EXPECT_EQ(again.exchange(ping(0x42)), pong(0x42));
}

TEST_F(FaultTest, UnplugAndReplugMakeANewDeviceAtTheSamePath) {
    const auto hidDir = [&] {
        return std::filesystem::canonical(sim.machine().sysfsRoot() +
                                          "/class/hidraw/hidraw0/device")
            .filename();
    };
    const auto before = hidDir();
    command("unplug mouse");
    EXPECT_FALSE(std::filesystem::exists(sim.machine().sysfsRoot() + "/class/hidraw/hidraw0"));
    EXPECT_TRUE(host.readFails());
    Host gone(sim, sim.path(0));
    EXPECT_FALSE(gone.open());
    EXPECT_EQ(devio::error_record().err, devio::CreateFileFailed);

    command("plug mouse");
    EXPECT_NE(hidDir(), before);  // the kernel's next HID device
    Host back(sim, sim.path(0));
    ASSERT_TRUE(back.open());
    EXPECT_EQ(back.exchange(ping(0x43)), pong(0x43));
}

// Run-time events that the device itself reports.
TEST_F(FaultTest, DeviceEventsSendNotifications) {
    const std::pair<const char*, const char*> steps[] = {
        {"battery mouse 20 10 2", "11 FF 06 00 14 0A 02"},
        {"wireless mouse 1 0 1", "11 FF 07 00 01 00 01"},
        {"property mouse 0 1600", "11 FF 08 00 00 00 40 06 00 00 FF"},
        {"notify mouse 0x1000 3 9 8 7", "11 FF 06 30 09 08 07"},
        // Another host's cookie write shows as the answer to it, its swid.
        {"cookie mouse 0x4242 3", "11 FF 05 13 42 42"},
        {"reflash mouse 0 0x1301 0x0050", "11 FF 07 00 01 01 00"},
    };
    for (const auto& [line, notification] : steps) {
        ASSERT_EQ(sim.command(line), "ok") << line;
        EXPECT_EQ(host.next(), hex(notification, 20)) << line;
    }
    EXPECT_EQ(host.exchange(hex("11 FF 02 1A 00", 20)),
              hex("11 FF 02 1A 00 'MPM' 13 01 00 50 01", 20));
    // The new firmware has lost the cookie.
    EXPECT_EQ(host.exchange(hex("11 FF 05 0A", 20)), hex("11 FF 05 0A 00 00", 20));
}

// Faults of a paired device and of the receiver itself are separate.
TEST_F(FaultTest, PairedDeviceAndReceiverHaveFaultsOfTheirOwn) {
    Host rcv(sim, sim.path(1, "#col1"));
    ASSERT_TRUE(rcv.open());
    command("fault kbd error 2 8 1");
    EXPECT_EQ(rcv.exchange(hex("10 01 00 1A 00 00 33")), hex("10 01 FF 00 1A 08 00"));
    EXPECT_EQ(rcv.exchange(hex("10 FF 81 02 00 00 00")), hex("10 FF 81 02 00 01 00"));
    command("fault dongle drop 1");
    ASSERT_TRUE(rcv.write(hex("10 FF 81 02 00 00 00")));
    EXPECT_EQ(rcv.pending(), 0u);
    EXPECT_EQ(rcv.exchange(hex("10 01 00 1A 00 00 34")), hex("10 01 00 1A 04 00 34"));
}

TEST_F(FaultTest, CommandsRefuseWhatCannotBe) {
    const char* const refused[] = {
        "fault nobody drop 1",   "fault mouse late x", "fault mouse error 3 1", "battery kbd",
        "disconnect mouse",      "pair dongle nobody", "reflash mouse 4 0x100", "frobnicate",
        "property mouse 0 1.5x", "cookie mouse 1 0",
    };
    for (const char* line : refused) EXPECT_EQ(sim.command(line).substr(0, 7), "error: ") << line;
}

}  // namespace
}  // namespace simtest
