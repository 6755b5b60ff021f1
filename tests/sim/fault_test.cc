// Each fault mode does what it says, seen from the host side of Win32Device.

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "ErrorRecord.h"
#include "SimHost.h"

namespace simtest {
namespace {

const char* const kMachine = R"({
  "devices": [{"id": "mouse", "name": "Sim Mouse", "pid": "0xC08B", "cookie": "0x0101",
               "entities": [{"type": 0, "prefix": "MPM", "version": "0x1203", "build": "0x0045"}],
               "properties": [{"name": "dpi", "type": "int", "value": 800}]}],
  "receivers": [{"id": "dongle", "pid": "0xA101",
                 "devices": [{"id": "kbd", "name": "Sim Keyboard", "qid": "0x4B21", "slot": 1}]}]})";

// Feature indices of the default table.
constexpr std::uint8_t kFwInfo = 2, kCookie = 5, kBattery = 6, kWireless = 7, kProperties = 8;

Bytes ping(std::uint8_t echo, std::uint8_t swid = 0x0A) {
    return longReport({0x11, 0xFF, 0x00, static_cast<std::uint8_t>(0x10 | swid), 0, 0, echo});
}
Bytes pong(std::uint8_t echo, std::uint8_t swid = 0x0A) {
    return longReport({0x11, 0xFF, 0x00, static_cast<std::uint8_t>(0x10 | swid), 4, 0, echo});
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

TEST_F(FaultTest, DropLosesTheAnswersButCarriesOutTheCommands) {
    command("fault mouse drop 2");
    ASSERT_TRUE(host.write(longReport({0x11, 0xFF, kCookie, 0x1A, 0x22, 0x33})));
    ASSERT_TRUE(host.write(ping(0x41)));
    EXPECT_EQ(host.pending(), 0u);
    EXPECT_EQ(host.exchange(longReport({0x11, 0xFF, kCookie, 0x0A})),
              longReport({0x11, 0xFF, kCookie, 0x0A, 0x22, 0x33}));
}

TEST_F(FaultTest, DelayHoldsTheAnswerBack) {
    command("fault mouse delay 400 1");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(host.exchange(ping(0x41)), pong(0x41));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 350ms);
    EXPECT_EQ(host.exchange(ping(0x42)), pong(0x42));
}

// Each command gets the answer of the command before it; when the count
// runs out, the device is in step again.
TEST_F(FaultTest, LateAnswersOneCommandBehind) {
    EXPECT_EQ(host.exchange(ping(0x40)), pong(0x40));
    command("fault mouse late 2");
    EXPECT_EQ(host.exchange(ping(0x41)), pong(0x40));
    EXPECT_EQ(host.exchange(ping(0x42)), pong(0x41));
    EXPECT_EQ(host.exchange(ping(0x43)), pong(0x43));
    EXPECT_EQ(host.pending(), 0u);
}

TEST_F(FaultTest, SwidAnswersUnderAnotherSoftwareId) {
    command("fault mouse swid 5 1");
    EXPECT_EQ(host.exchange(ping(0x41)), pong(0x41, 5));
    EXPECT_EQ(host.exchange(ping(0x42)), pong(0x42));
    // In an error report the software id sits one byte on.
    command("fault mouse swid 3 1");
    EXPECT_EQ(host.exchange(longReport({0x11, 0xFF, 0x30, 0x0A})),
              longReport({0x11, 0xFF, 0xFF, 0x30, 0x03, 0x05}));
}

TEST_F(FaultTest, ErrorRefusesWithoutCarryingOut) {
    const Bytes setCookie = longReport({0x11, 0xFF, kCookie, 0x1A, 0x77, 0x77});
    command("fault mouse error 1 9 1");
    EXPECT_EQ(host.exchange(setCookie), longReport({0x11, 0xFF, 0x8F, kCookie, 0x1A, 9}));
    command("fault mouse error 2 8 1");
    EXPECT_EQ(host.exchange(setCookie), longReport({0x11, 0xFF, 0xFF, kCookie, 0x1A, 8}));
    EXPECT_EQ(host.exchange(longReport({0x11, 0xFF, kCookie, 0x0A})),
              longReport({0x11, 0xFF, kCookie, 0x0A, 1, 1}));
    EXPECT_EQ(sim.command("fault mouse show"), "ok\nnone");
}

TEST_F(FaultTest, FailedWritesReportTheErrorUntilReopened) {
    command("fault mouse writes fail");
    EXPECT_FALSE(host.write(ping(0x41)));
    EXPECT_EQ(devio::error_record().err, devio::WriteError);
    EXPECT_EQ(devio::error_record().sys, static_cast<std::uint32_t>(EPIPE));
    command("fault mouse writes normal");
    Host again(sim, sim.path(0));
    ASSERT_TRUE(again.open());
    EXPECT_EQ(again.exchange(ping(0x42)), pong(0x42));
}

TEST_F(FaultTest, StalledWritesAreTakenButNotReadUntilTheStallEnds) {
    command("fault mouse writes stall");
    ASSERT_TRUE(host.write(ping(0x41)));
    EXPECT_EQ(host.pending(200ms), 0u);
    command("fault mouse writes normal");
    EXPECT_EQ(host.next(), pong(0x41));
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
    struct Step {
        const char* command;
        Bytes notification;
    };
    const Step steps[] = {
        {"battery mouse 20 10 2", longReport({0x11, 0xFF, kBattery, 0x00, 20, 10, 2})},
        {"wireless mouse 1 0 1", longReport({0x11, 0xFF, kWireless, 0x00, 1, 0, 1})},
        {"property mouse 0 1600",
         longReport({0x11, 0xFF, kProperties, 0x00, 0, 0, 0x40, 0x06, 0, 0, 0xFF})},
        {"notify mouse 0x1000 3 9 8 7", longReport({0x11, 0xFF, kBattery, 0x30, 9, 8, 7})},
        // Another host's cookie write shows as the answer to it, its swid.
        {"cookie mouse 0x4242 3", longReport({0x11, 0xFF, kCookie, 0x13, 0x42, 0x42})},
        {"reflash mouse 0 0x1301 0x0050", longReport({0x11, 0xFF, kWireless, 0x00, 1, 1, 0})},
    };
    for (const Step& s : steps) {
        ASSERT_EQ(sim.command(s.command), "ok") << s.command;
        EXPECT_EQ(host.next(), s.notification) << s.command;
    }
    EXPECT_EQ(host.exchange(longReport({0x11, 0xFF, kFwInfo, 0x1A, 0})),
              longReport({0x11, 0xFF, kFwInfo, 0x1A, 0, 'M', 'P', 'M', 0x13, 0x01, 0x00, 0x50, 1}));
    // The new firmware has lost the cookie.
    EXPECT_EQ(host.exchange(longReport({0x11, 0xFF, kCookie, 0x0A})),
              longReport({0x11, 0xFF, kCookie, 0x0A, 0, 0}));
}

// Faults of a paired device and of the receiver itself are separate.
TEST_F(FaultTest, PairedDeviceAndReceiverHaveFaultsOfTheirOwn) {
    Host rcv(sim, sim.path(1, "#col1"));
    ASSERT_TRUE(rcv.open());
    command("fault kbd error 2 8 1");
    EXPECT_EQ(rcv.exchange({0x10, 0x01, 0x00, 0x1A, 0, 0, 0x33}),
              Bytes({0x10, 0x01, 0xFF, 0x00, 0x1A, 0x08, 0}));
    EXPECT_EQ(rcv.exchange({0x10, 0xFF, 0x81, 0x02, 0, 0, 0}),
              Bytes({0x10, 0xFF, 0x81, 0x02, 0, 1, 0}));
    command("fault dongle drop 1");
    ASSERT_TRUE(rcv.write({0x10, 0xFF, 0x81, 0x02, 0, 0, 0}));
    EXPECT_EQ(rcv.pending(), 0u);
    EXPECT_EQ(rcv.exchange({0x10, 0x01, 0x00, 0x1A, 0, 0, 0x34}),
              Bytes({0x10, 0x01, 0x00, 0x1A, 4, 0, 0x34}));
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
