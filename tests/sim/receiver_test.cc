// The receiver: its registers, the devices behind it by device number, and
// the notifications of run-time events, through Win32Device on its two
// collections (short reports on #col1, long ones on #col2).

#include <gtest/gtest.h>

#include "SimHost.h"

namespace simtest {
namespace {

const char* const kMachine = R"({"receivers": [
  {"id": "dongle", "name": "Sim Receiver", "pid": "0xA105", "devices": [
    {"id": "kbd", "name": "Sim Keyboard", "qid": "0x4B21", "slot": 1, "slot_status": "0x21"},
    {"id": "ball", "name": "Sim Trackball", "qid": "0x4C02", "slot": 3, "connected": false},
    {"id": "spare", "name": "Spare", "qid": "0x4D11", "paired": false}]}]})";

class ReceiverTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(shortHost.open());
        ASSERT_TRUE(longHost.open());
    }
    // The short reports read next, in this order.
    void expectReads(std::initializer_list<const char*> reports) {
        for (const char* r : reports) EXPECT_EQ(shortHost.next(), hex(r)) << r;
    }
    void expectNothingMore() {
        EXPECT_EQ(shortHost.pending(), 0u);
        EXPECT_EQ(longHost.pending(0ms), 0u);
    }

    SimMachine sim{kMachine};
    Host shortHost{sim, sim.path(0, "#col1")};
    Host longHost{sim, sim.path(0, "#col2")};
};

TEST_F(ReceiverTest, RegistersAnswerWithTheseBytes) {
    struct Case {
        const char* name;
        const char* request;
        const char* answer;  // a long answer is read on the long collection
        bool isLong = false;
    };
    const Case cases[] = {
        {"flags", "10 FF 81 00 00 00 00", "10 FF 81 00 00 00 00"},
        {"paired_count", "10 FF 81 02 00 00 00", "10 FF 81 02 00 02 00"},
        {"register3", "10 FF 81 03 00 00 00", "10 FF 81 03 00 00 00"},
        {"unknown_register", "10 FF 81 07 00 00 00", "10 FF 8F 81 07 02 00"},
        {"bad_connection_request", "10 FF 80 02 05 00 00", "10 FF 8F 80 02 03 00"},
        {"feature_probe", "10 FF 00 1A 00 00 33", "10 FF 8F 00 1A 01 00"},
        {"slot_status", "10 FF 83 B3 00 00 00", "11 FF 83 B3 21 00 01", true},
        {"paired_name", "10 FF 83 B5 40 00 00", "11 FF 83 B5 40 0C 'Sim Keyboard'", true},
        {"name_of_empty_slot", "10 FF 83 B5 41 00 00", "10 FF 8F 83 B5 03 00"},
        {"unpair_empty_slot", "10 FF 80 B2 03 02 00", "10 FF 8F 80 B2 03 00"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(shortHost.write(hex(c.request)));
        Host& reader = c.isLong ? longHost : shortHost;
        EXPECT_EQ(reader.next().value_or(Bytes{}), hex(c.answer, c.isLong ? 20 : 0));
        expectNothingMore();
    }
}

// One arrival per paired device, qid low byte first and bit 6 for a link
// that is down, all before the answer to the request. Byte 3 of this
// product's arrival reports is 0C.
TEST_F(ReceiverTest, FakeArrivalComesBeforeTheAnswer) {
    ASSERT_TRUE(shortHost.write(hex("10 FF 80 02 02 00 00")));
    expectReads({"10 01 41 0C 00 21 4B", "10 03 41 0C 40 02 4C", "10 FF 80 02 00 00 00"});
    expectNothingMore();
}

TEST_F(ReceiverTest, DeviceNumbersReachPairedDevices) {
    // Device 1 answers in its own name; a long answer comes long.
    EXPECT_EQ(shortHost.exchange(hex("10 01 00 1A 00 00 33")), hex("10 01 00 1A 04 00 33"));
    ASSERT_TRUE(shortHost.write(hex("10 01 02 1A 00 00 00")));
    const Bytes fw = longHost.next().value_or(Bytes{});
    ASSERT_EQ(fw.size(), 20u);
    EXPECT_EQ(Bytes(fw.begin(), fw.begin() + 8), hex("11 01 02 1A 00 'MPM'"));
    // The receiver answers for a device whose link is down, and for nobody.
    EXPECT_EQ(shortHost.exchange(hex("10 03 00 1A 00 00 33")), hex("10 03 8F 00 1A 04 00"));
    EXPECT_EQ(shortHost.exchange(hex("10 02 00 1A 00 00 33")), hex("10 02 8F 00 1A 08 00"));
    expectNothingMore();
}

TEST_F(ReceiverTest, RunTimeEventsNotifyOnlyWithNotificationsOn) {
    ASSERT_EQ(sim.command("disconnect kbd"), "ok");
    EXPECT_EQ(shortHost.pending(), 0u);
    // Wireless notifications on.
    EXPECT_EQ(shortHost.exchange(hex("10 FF 80 00 00 01 00")), hex("10 FF 80 00 00 00 00"));
    struct Step {
        const char* command;
        std::initializer_list<const char*> reports;
    };
    const Step steps[] = {
        {"disconnect kbd", {"10 01 41 0C 40 21 4B"}},
        // Back: the arrival, then the device's own wireless status.
        {"connect kbd", {"10 01 41 0C 00 21 4B", "10 01 07 00 01 01 00"}},
        {"pair dongle spare", {"10 02 41 0C 00 11 4D", "10 02 07 00 01 01 00"}},
        {"unpair spare", {"10 02 40 02 00 00 00"}},
        // Another program clears the flags: the write shows, and events go
        // quiet.
        {"overwrite-flags dongle", {"10 FF 80 00 00 00 00"}},
        {"disconnect kbd", {}},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.command);
        ASSERT_EQ(sim.command(s.command), "ok");
        expectReads(s.reports);
    }
    expectNothingMore();
    EXPECT_EQ(sim.command("pair dongle kbd"), "error: kbd is paired already");
}

TEST_F(ReceiverTest, PairingRegisterOpensTheLockAndUnpairs) {
    EXPECT_EQ(shortHost.exchange(hex("10 FF 80 00 00 01 00")), hex("10 FF 80 00 00 00 00"));
    ASSERT_TRUE(shortHost.write(hex("10 FF 80 B2 01 00 00")));
    expectReads({"10 FF 80 B2 00 00 00", "10 FF 4A 01 00 00 00"});
    // A pairing closes the lock again.
    ASSERT_EQ(sim.command("pair dongle spare 5"), "ok");
    expectReads({"10 05 41 0C 00 11 4D", "10 05 07 00 01 01 00", "10 FF 4A 00 00 00 00"});
    // Unpairing through the register.
    ASSERT_TRUE(shortHost.write(hex("10 FF 80 B2 03 01 00")));
    expectReads({"10 FF 80 B2 00 00 00", "10 01 40 02 00 00 00"});
    EXPECT_EQ(shortHost.exchange(hex("10 FF 81 02 00 00 00")), hex("10 FF 81 02 00 02 00"));
    expectNothingMore();
}

}  // namespace
}  // namespace simtest
