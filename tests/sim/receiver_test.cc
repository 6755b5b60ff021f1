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

// Byte 3 of this product's arrival reports.
constexpr std::uint8_t kProtocolByte = 0x0C;

class ReceiverTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(shortHost.open());
        ASSERT_TRUE(longHost.open());
    }
    void enableNotifications() {
        ASSERT_EQ(shortHost.exchange({0x10, 0xFF, 0x80, 0x00, 0, 0x01, 0}),
                  Bytes({0x10, 0xFF, 0x80, 0x00, 0, 0, 0}));
    }
    void expectNothingMore() {
        EXPECT_EQ(shortHost.pending(), 0u);
        EXPECT_EQ(longHost.pending(0ms), 0u);
    }

    SimMachine sim{kMachine};
    Host shortHost{sim, sim.path(0, "#col1")};
    Host longHost{sim, sim.path(0, "#col2")};
};

struct RegisterCase {
    const char* name;
    Bytes request;
    Bytes expected;  // a long answer is read on the long collection
};

void PrintTo(const RegisterCase& c, std::ostream* os) { *os << c.name; }

class Registers : public ReceiverTest, public ::testing::WithParamInterface<RegisterCase> {};

TEST_P(Registers, AnswerWithTheseBytes) {
    const RegisterCase& c = GetParam();
    ASSERT_TRUE(shortHost.write(c.request));
    Host& reader = c.expected.size() == 20 ? longHost : shortHost;
    EXPECT_EQ(reader.next().value_or(Bytes{}), c.expected);
    expectNothingMore();
}

INSTANTIATE_TEST_SUITE_P(
    Receiver, Registers,
    ::testing::Values(
        RegisterCase{"flags", {0x10, 0xFF, 0x81, 0x00, 0, 0, 0}, {0x10, 0xFF, 0x81, 0x00, 0, 0, 0}},
        RegisterCase{
            "paired_count", {0x10, 0xFF, 0x81, 0x02, 0, 0, 0}, {0x10, 0xFF, 0x81, 0x02, 0, 2, 0}},
        RegisterCase{
            "register3", {0x10, 0xFF, 0x81, 0x03, 0, 0, 0}, {0x10, 0xFF, 0x81, 0x03, 0, 0, 0}},
        RegisterCase{"unknown_register",
                     {0x10, 0xFF, 0x81, 0x07, 0, 0, 0},
                     {0x10, 0xFF, 0x8F, 0x81, 0x07, 0x02, 0}},
        RegisterCase{"bad_connection_request",
                     {0x10, 0xFF, 0x80, 0x02, 5, 0, 0},
                     {0x10, 0xFF, 0x8F, 0x80, 0x02, 0x03, 0}},
        RegisterCase{"feature_probe",
                     {0x10, 0xFF, 0x00, 0x1A, 0, 0, 0x33},
                     {0x10, 0xFF, 0x8F, 0x00, 0x1A, 0x01, 0}},
        RegisterCase{"slot_status",
                     {0x10, 0xFF, 0x83, 0xB3, 0, 0, 0},
                     longReport({0x11, 0xFF, 0x83, 0xB3, 0x21, 0, 0x01})},
        RegisterCase{"paired_name",
                     {0x10, 0xFF, 0x83, 0xB5, 0x40, 0, 0},
                     longReport({0x11, 0xFF, 0x83, 0xB5, 0x40, 12, 'S', 'i', 'm', ' ', 'K', 'e',
                                 'y', 'b', 'o', 'a', 'r', 'd'})},
        RegisterCase{"name_of_empty_slot",
                     {0x10, 0xFF, 0x83, 0xB5, 0x41, 0, 0},
                     {0x10, 0xFF, 0x8F, 0x83, 0xB5, 0x03, 0}},
        RegisterCase{"unpair_empty_slot",
                     {0x10, 0xFF, 0x80, 0xB2, 3, 2, 0},
                     {0x10, 0xFF, 0x8F, 0x80, 0xB2, 0x03, 0}}),
    [](const auto& p) { return std::string(p.param.name); });

// One arrival per paired device, qid low byte first and bit 6 for a link
// that is down, all before the answer to the request.
TEST_F(ReceiverTest, FakeArrivalComesBeforeTheAnswer) {
    ASSERT_TRUE(shortHost.write({0x10, 0xFF, 0x80, 0x02, 0x02, 0, 0}));
    EXPECT_EQ(shortHost.next(), Bytes({0x10, 0x01, 0x41, kProtocolByte, 0x00, 0x21, 0x4B}));
    EXPECT_EQ(shortHost.next(), Bytes({0x10, 0x03, 0x41, kProtocolByte, 0x40, 0x02, 0x4C}));
    EXPECT_EQ(shortHost.next(), Bytes({0x10, 0xFF, 0x80, 0x02, 0, 0, 0}));
    expectNothingMore();
}

TEST_F(ReceiverTest, DeviceNumbersReachPairedDevices) {
    // Device 1 answers in its own name; a long answer comes long.
    EXPECT_EQ(shortHost.exchange({0x10, 0x01, 0x00, 0x1A, 0, 0, 0x33}),
              Bytes({0x10, 0x01, 0x00, 0x1A, 4, 0, 0x33}));
    ASSERT_TRUE(shortHost.write({0x10, 0x01, 0x02, 0x1A, 0, 0, 0}));
    const Bytes fw = longHost.next().value_or(Bytes{});
    ASSERT_EQ(fw.size(), 20u);
    EXPECT_EQ(Bytes(fw.begin(), fw.begin() + 8), Bytes({0x11, 0x01, 0x02, 0x1A, 0, 'M', 'P', 'M'}));
    // The receiver answers for a device whose link is down, and for nobody.
    EXPECT_EQ(shortHost.exchange({0x10, 0x03, 0x00, 0x1A, 0, 0, 0x33}),
              Bytes({0x10, 0x03, 0x8F, 0x00, 0x1A, 0x04, 0}));
    EXPECT_EQ(shortHost.exchange({0x10, 0x02, 0x00, 0x1A, 0, 0, 0x33}),
              Bytes({0x10, 0x02, 0x8F, 0x00, 0x1A, 0x08, 0}));
    expectNothingMore();
}

TEST_F(ReceiverTest, RunTimeEventsNotifyOnlyWithWirelessNotificationsOn) {
    ASSERT_EQ(sim.command("disconnect kbd"), "ok");
    EXPECT_EQ(shortHost.pending(), 0u);
    enableNotifications();
    struct Step {
        const char* command;
        std::vector<Bytes> reports;
    };
    const Step steps[] = {
        {"disconnect kbd", {{0x10, 0x01, 0x41, kProtocolByte, 0x40, 0x21, 0x4B}}},
        // Back: the arrival, then the device's own wireless status.
        {"connect kbd",
         {{0x10, 0x01, 0x41, kProtocolByte, 0x00, 0x21, 0x4B}, {0x10, 0x01, 0x07, 0x00, 1, 1, 0}}},
        {"pair dongle spare",
         {{0x10, 0x02, 0x41, kProtocolByte, 0x00, 0x11, 0x4D}, {0x10, 0x02, 0x07, 0x00, 1, 1, 0}}},
        {"unpair spare", {{0x10, 0x02, 0x40, 0x02, 0, 0, 0}}},
    };
    for (const Step& s : steps) {
        ASSERT_EQ(sim.command(s.command), "ok") << s.command;
        for (const Bytes& r : s.reports) EXPECT_EQ(shortHost.next(), r) << s.command;
    }
    // Another program clears the flags: the write shows, and events go quiet.
    ASSERT_EQ(sim.command("overwrite-flags dongle"), "ok");
    EXPECT_EQ(shortHost.next(), Bytes({0x10, 0xFF, 0x80, 0x00, 0, 0, 0}));
    ASSERT_EQ(sim.command("disconnect kbd"), "ok");
    expectNothingMore();
    EXPECT_EQ(sim.command("pair dongle kbd"), "error: kbd is paired already");
}

TEST_F(ReceiverTest, PairingRegisterOpensTheLockAndUnpairs) {
    enableNotifications();
    ASSERT_TRUE(shortHost.write({0x10, 0xFF, 0x80, 0xB2, 1, 0, 0}));
    EXPECT_EQ(shortHost.next(), Bytes({0x10, 0xFF, 0x80, 0xB2, 0, 0, 0}));
    EXPECT_EQ(shortHost.next(), Bytes({0x10, 0xFF, 0x4A, 1, 0, 0, 0}));
    // A pairing closes the lock again.
    ASSERT_EQ(sim.command("pair dongle spare 5"), "ok");
    EXPECT_EQ(shortHost.next(), Bytes({0x10, 0x05, 0x41, kProtocolByte, 0x00, 0x11, 0x4D}));
    EXPECT_EQ(shortHost.next(), Bytes({0x10, 0x05, 0x07, 0x00, 1, 1, 0}));
    EXPECT_EQ(shortHost.next(), Bytes({0x10, 0xFF, 0x4A, 0, 0, 0, 0}));

    ASSERT_TRUE(shortHost.write({0x10, 0xFF, 0x80, 0xB2, 3, 1, 0}));
    EXPECT_EQ(shortHost.next(), Bytes({0x10, 0xFF, 0x80, 0xB2, 0, 0, 0}));
    EXPECT_EQ(shortHost.next(), Bytes({0x10, 0x01, 0x40, 0x02, 0, 0, 0}));
    EXPECT_EQ(shortHost.exchange({0x10, 0xFF, 0x81, 0x02, 0, 0, 0}),
              Bytes({0x10, 0xFF, 0x81, 0x02, 0, 2, 0}));
    expectNothingMore();
}

}  // namespace
}  // namespace simtest
