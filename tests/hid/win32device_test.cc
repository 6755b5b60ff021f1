// Win32Device end to end through the hidraw binding: a prepared sysfs tree,
// socket nodes and in-test peers.

#include "Windows/Win32Device.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "Base/ErrorRecord.h"
#include "Base/Subscriber.h"
#include "Linux/HidNode.h"
#include "SimTree.h"
#include "TestSupport.h"
#include "descriptors.h"

namespace {

using devio::Byte;
using devio::ErrorCode;
using devio::IHardwareDevice;
using devio::Win32Device;
using hidtest::Bytes;
using hidtest::NodeSpec;

constexpr std::uint16_t kVid = 0x2E5A;

using devio::test::eventually;

// Records reads and writes; may run a hook inside onRead.
struct Recorder : devio::Subscriber<IHardwareDevice::Read>,
                  devio::Subscriber<IHardwareDevice::Write> {
    std::mutex m;
    std::vector<Bytes> reads;
    std::vector<unsigned> read_errors;
    std::vector<std::pair<Bytes, ErrorCode>> writes;
    std::function<void()> in_read;

    void onRead(std::vector<Byte> report, bool, unsigned sys_error, unsigned) override {
        {
            std::lock_guard<std::mutex> lock(m);
            reads.push_back(report);
            read_errors.push_back(sys_error);
        }
        if (in_read) in_read();
    }
    void onWrite(std::vector<Byte> report, ErrorCode err, unsigned) override {
        std::lock_guard<std::mutex> lock(m);
        writes.emplace_back(report, err);
    }
    std::size_t readCount() {
        std::lock_guard<std::mutex> lock(m);
        return reads.size();
    }
};

struct UnplugRecorder : devio::Subscriber<devio::IHardwareBus::PlugUnplug> {
    std::mutex m;
    std::vector<std::string> unplugged;
    void onUnplug(const std::shared_ptr<IHardwareDevice>& d) override {
        std::lock_guard<std::mutex> lock(m);
        unplugged.push_back(d->path());
    }
};

class Win32DeviceTest : public ::testing::Test {
protected:
    hidtest::SimTree tree;
    std::shared_ptr<hidtest::TreeBus> bus =
        std::make_shared<hidtest::TreeBus>(tree.sysRoot(), tree.devRoot());
    std::shared_ptr<devio::IWin32System> system() {
        std::shared_ptr<devio::IWin32System> s;
        bus->lazyStart(&s);
        return s;
    }
    std::shared_ptr<Win32Device> device(unsigned n, const std::string& suffix = "") {
        return std::make_shared<Win32Device>(bus, system(), tree.devicePath(n) + suffix, n);
    }
    // A complete long collection: report 0x11, 20 bytes each way.
    hidtest::Peer& addLong(unsigned n) {
        return tree.addNode(
            n, {hidtest::ueventFor(kVid, 0xC0DE), hidtest::vendorCollection(0xFF00, 2, 0x11, 19),
                true, "Test Keyboard"});
    }
};

struct Refusal {
    const char* name;
    std::string uevent;
    Bytes descriptor;
    bool has_descriptor;
    ErrorCode err;
    std::uint32_t sys;
    bool socket = true;
};

void PrintTo(const Refusal& c, std::ostream* os) {
    *os << c.name;
}

class AcceptanceRule : public Win32DeviceTest, public ::testing::WithParamInterface<Refusal> {};

// Every refusal leaves the object closed, with its code in the thread's record.
TEST_P(AcceptanceRule, RefusesWithItsCode) {
    const Refusal& r = GetParam();
    tree.addNode(0, {r.uevent, r.descriptor, r.has_descriptor, "", r.socket});
    auto dev = device(0);
    devio::set_error(devio::Success, nullptr, 12345);
    EXPECT_FALSE(dev->open());
    EXPECT_EQ(devio::error_record().err, r.err);
    EXPECT_EQ(devio::error_record().sys, r.sys);
    if (r.err == devio::CreateFileFailed) {
        EXPECT_STREQ(devio::error_record().str, "CreateFile failed");
    }
    // The refusal closed the node: a second open is refused the same way.
    EXPECT_FALSE(dev->open());
    EXPECT_EQ(devio::error_record().err, r.err);
}

Bytes mismatchedSizes() {
    // Input report of 7 bytes, output report of 20, one collection.
    return {0x06, 0x00, 0xFF, 0x09, 0x02, 0xA1, 0x01, 0x85, 0x11, 0x75,
            0x08, 0x15, 0x00, 0x26, 0xFF, 0x00, 0x95, 0x06, 0x09, 0x02,
            0x81, 0x00, 0x95, 0x13, 0x09, 0x02, 0x91, 0x00, 0xC0};
}

Bytes twoInputCaps() {
    return {0x06, 0x00, 0xFF, 0x09, 0x02, 0xA1, 0x01, 0x85, 0x11, 0x75, 0x08, 0x15,
            0x00, 0x26, 0xFF, 0x00, 0x95, 0x0A, 0x09, 0x02, 0x81, 0x00, 0x95, 0x09,
            0x09, 0x03, 0x81, 0x00, 0x95, 0x13, 0x09, 0x02, 0x91, 0x00, 0xC0};
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, AcceptanceRule,
    ::testing::Values(Refusal{"foreign_vendor", hidtest::ueventFor(0x1234, 0x5678),
                              hidtest::kKeyboard, true, devio::NotVendorDevice, 0x5678},
                      Refusal{"zero_ids_no_path_hint", hidtest::ueventFor(0, 0),
                              hidtest::vendorCollection(0xFF00, 2, 0x11, 19), true,
                              devio::NotVendorDevice, 0},
                      Refusal{"usage_3", hidtest::ueventFor(kVid, 1),
                              hidtest::vendorCollection(0xFF00, 3, 0x11, 19), true,
                              devio::NotVxpCollection, 0},
                      Refusal{"mask_bit_outside", hidtest::ueventFor(kVid, 1),
                              hidtest::vendorCollection(0xFF43, 0x0102, 0x11, 19), true,
                              devio::NotVxpCollection, 0},
                      Refusal{"mask_two_bits", hidtest::ueventFor(kVid, 1),
                              hidtest::vendorCollection(0xFF43, 0x0303, 0x11, 19), true,
                              devio::NotVxpCollection, 0},
                      Refusal{"keyboard_page", hidtest::ueventFor(kVid, 1), hidtest::kKeyboard,
                              true, devio::NotVendorUsagePage, 0},
                      Refusal{"two_input_caps", hidtest::ueventFor(kVid, 1), twoInputCaps(), true,
                              devio::NotVxpCollection, 0},
                      Refusal{"mismatched_sizes", hidtest::ueventFor(kVid, 1), mismatchedSizes(),
                              true, devio::NotVxpCollection, 0},
                      Refusal{"no_descriptor",
                              hidtest::ueventFor(kVid, 1),
                              {},
                              false,
                              devio::GetPreparsedDataFailed,
                              ENOTTY},
                      Refusal{"broken_descriptor",
                              hidtest::ueventFor(kVid, 1),
                              {0x06, 0x00},
                              true,
                              devio::GetPreparsedDataFailed,
                              EINVAL},
                      // A socket knows no hidraw ioctl: without HID_ID the attributes fail.
                      Refusal{"no_id", "HID_NAME=x\n", hidtest::kKeyboard, true,
                              devio::GetAttributesFailed, ENOTTY},
                      Refusal{"missing_node", hidtest::ueventFor(kVid, 1),
                              hidtest::vendorCollection(0xFF00, 2, 0x11, 19), true,
                              devio::CreateFileFailed, ENOENT, false}),
    [](const auto& p) { return std::string(p.param.name); });

// One node carrying the short and the long collection is two interfaces, two
// pieces of one device with one combine key.
TEST_F(Win32DeviceTest, SharedNodeGivesOnePiecePerCollection) {
    auto& peer = tree.addNode(
        3, {hidtest::ueventFor(kVid, 0xC0DF), hidtest::vendorShortAndLong(), true, ""});
    const auto found = bus->devices();
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0]->path(), tree.locatedPath() + "#col1");
    EXPECT_EQ(found[1]->path(), tree.locatedPath() + "#col2");
    EXPECT_EQ(found[0]->collection_id(), 1);
    EXPECT_EQ(found[1]->collection_id(), 2);
    EXPECT_EQ(found[0]->max_report_size(), 7);
    EXPECT_FALSE(found[0]->combine_key().empty());
    EXPECT_NE(found[0]->combine_key(), found[0]->path());
    EXPECT_EQ(found[0]->combine_key(), found[1]->combine_key());

    // Each piece reads only its own reports.
    Recorder shortRec, longRec;
    ASSERT_TRUE(found[0]->open());
    ASSERT_TRUE(found[1]->open());
    ASSERT_TRUE(shortRec.devio::Subscriber<IHardwareDevice::Read>::subscribe(found[0], 1, ""));
    ASSERT_TRUE(longRec.devio::Subscriber<IHardwareDevice::Read>::subscribe(found[1], 1, ""));
    ASSERT_TRUE(eventually([&] { return peer.connections() == 2; }));
    Bytes shortReport = {0x10, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06};
    Bytes longReport(20, 0xAB);
    longReport[0] = 0x11;
    peer.send(shortReport);
    peer.send(longReport);
    ASSERT_TRUE(eventually([&] { return shortRec.readCount() == 1 && longRec.readCount() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::lock_guard<std::mutex> l1(shortRec.m);
    std::lock_guard<std::mutex> l2(longRec.m);
    EXPECT_EQ(shortRec.reads, std::vector<Bytes>{shortReport});
    EXPECT_EQ(longRec.reads, std::vector<Bytes>{longReport});
    found[0]->close();
    found[1]->close();
}

TEST_F(Win32DeviceTest, EnumerationSkipsForeignInterfacesAndLeavesNoError) {
    tree.addNode(0, {hidtest::ueventFor(0x1234, 0x5678), hidtest::kKeyboard, true, ""});
    tree.addNode(1, {hidtest::ueventFor(0x1234, 0x5679), hidtest::kMouse, true, ""});
    devio::set_error(devio::NotVendorDevice, nullptr, 1);
    EXPECT_TRUE(bus->devices().empty());
    EXPECT_EQ(devio::error_record().err, devio::Success);
}

// A complete long collection: refused writes send nothing and are reported
// with their code, a short write goes out padded under the long report id,
// and the opened device shows its facts until its node goes.
TEST_F(Win32DeviceTest, GoodCollectionWritesRefusesAndNoticesItsNodeGoing) {
    auto& peer = addLong(0);
    // Named as enumeration names it: by where it sits, not by its node.
    auto dev = std::make_shared<Win32Device>(bus, system(), tree.locatedPath(), 0);
    Recorder rec;
    ASSERT_TRUE(rec.devio::Subscriber<IHardwareDevice::Write>::subscribe(dev, 1, ""));
    struct BadWrite {
        const char* what;
        std::size_t length;
        bool blocking;
        ErrorCode err;
    };
    for (const BadWrite& b : {BadWrite{"blocking without a reader", 7, true,
                                       devio::CannotPerformWriteWithoutReadThreadRunning},
                              BadWrite{"too long", 21, false, devio::WriteExceedsCollectionSize},
                              BadWrite{"empty", 0, false, devio::WriteTooShort}}) {
        SCOPED_TRACE(b.what);
        EXPECT_FALSE(dev->write(Bytes(b.length, 0x11), b.blocking));
        EXPECT_EQ(devio::error_record().err, b.err);
        std::lock_guard<std::mutex> lock(rec.m);
        ASSERT_FALSE(rec.writes.empty());
        EXPECT_TRUE(rec.writes.back().first.empty());
        EXPECT_EQ(rec.writes.back().second, b.err);
    }
    const Bytes seven = {0x10, 0xFF, 0x00, 0x1A, 0x01, 0x02, 0x03};
    ASSERT_TRUE(dev->write(seven, false)) << devio::error_record().err;
    ASSERT_TRUE(eventually([&] { return !peer.received().empty(); }));
    Bytes expected(20, 0x00);
    std::copy(seven.begin(), seven.end(), expected.begin());
    expected[0] = 0x11;
    EXPECT_EQ(peer.received(), std::vector<Bytes>{expected}) << "nothing of the refused writes";
    ASSERT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> lock(rec.m);
        return rec.writes.size() == 4;
    }));
    {
        std::lock_guard<std::mutex> lock(rec.m);
        EXPECT_EQ(rec.writes[3].first, expected);
        EXPECT_EQ(rec.writes[3].second, devio::Success);
    }

    ASSERT_TRUE(dev->open()) << devio::error_record().err;
    EXPECT_TRUE(dev->open());  // idempotent
    EXPECT_EQ(dev->pid(), 0xC0DE);
    EXPECT_EQ(dev->name(), "Test Keyboard");
    EXPECT_EQ(dev->max_report_size(), 20);
    EXPECT_EQ(dev->collection_id(), 2);
    EXPECT_EQ(dev->collections_expected(), 3);
    EXPECT_EQ(dev->path(), tree.locatedPath());
    EXPECT_TRUE(dev->verify_connection_following_timeout());
    tree.removeNodeFiles(0);
    EXPECT_FALSE(dev->verify_connection_following_timeout()) << "a zombie after a time-out";
    dev->close();
    dev->close();
}

// On the read thread a blocking write would wait for that very thread, so
// it is refused; a close there returns without joining itself.
TEST_F(Win32DeviceTest, ReadThreadMayNotWriteBlockingButMayClose) {
    auto& peer = addLong(0);
    auto dev = device(0);
    Recorder rec;
    std::atomic<int> err{-1};
    std::atomic<bool> closed{false};
    rec.in_read = [&] {
        if (err.load() == -1) {
            dev->write(Bytes(7, 0x10), true);
            err = devio::error_record().err;
        } else {
            dev->close();
            closed = true;
        }
    };
    ASSERT_TRUE(rec.devio::Subscriber<IHardwareDevice::Read>::subscribe(dev, 1, ""));
    ASSERT_TRUE(dev->open());
    ASSERT_TRUE(eventually([&] { return peer.connections() == 1; }));
    peer.send(Bytes(20, 0x11));
    ASSERT_TRUE(eventually([&] { return err.load() != -1; }));
    EXPECT_EQ(err.load(), devio::CannotPerformBlockingWriteOnReadThread);
    // From another thread the same write goes out, since a reader runs.
    EXPECT_TRUE(dev->write(Bytes(7, 0x10), true));
    ASSERT_TRUE(eventually([&] { return peer.received().size() == 1; }));

    peer.send(Bytes(20, 0x11));
    ASSERT_TRUE(eventually([&] { return closed.load(); }));
    // The device opens again with a fresh reader.
    rec.in_read = nullptr;
    ASSERT_TRUE(dev->open());
    ASSERT_TRUE(eventually([&] { return peer.connections() >= 1; }));
    dev->close();
}

TEST_F(Win32DeviceTest, PeerThatStopsReadingTimesTheWriteOut) {
    auto& peer = addLong(0);
    peer.stopReading();
    auto dev = device(0);
    ASSERT_TRUE(dev->open());
    // Fill the socket until the write has to wait; that one waits 10 s.
    const auto start = std::chrono::steady_clock::now();
    bool failed = false;
    for (int i = 0; i < 100000 && !failed; ++i) failed = !dev->write(Bytes(20, 0x11), false);
    const auto waited = std::chrono::steady_clock::now() - start;
    ASSERT_TRUE(failed);
    EXPECT_EQ(devio::error_record().err, devio::WriteTimeout);
    EXPECT_EQ(devio::error_record().sys, 0u);
    EXPECT_GE(waited, std::chrono::milliseconds(9900));
    dev->close();
}

TEST_F(Win32DeviceTest, PeerThatClosesMakesTheReadThreadReportRemoval) {
    auto& peer = addLong(0);
    auto dev = device(0);
    Recorder rec;
    UnplugRecorder unplug;
    ASSERT_TRUE(unplug.subscribe(bus, 1, ""));
    ASSERT_TRUE(rec.devio::Subscriber<IHardwareDevice::Read>::subscribe(dev, 1, ""));
    ASSERT_TRUE(dev->open());
    ASSERT_TRUE(eventually([&] { return peer.connections() == 1; }));
    peer.closeConnections();
    ASSERT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> lock(unplug.m);
        return !unplug.unplugged.empty();
    }));
    ASSERT_TRUE(eventually([&] { return rec.readCount() == 1; }));
    {
        std::lock_guard<std::mutex> lock(rec.m);
        EXPECT_TRUE(rec.reads[0].empty());
        EXPECT_EQ(rec.read_errors[0], 1167u);
    }
    {
        std::lock_guard<std::mutex> lock(unplug.m);
        EXPECT_EQ(unplug.unplugged[0], dev->path());
    }
    EXPECT_FALSE(dev->open());
    EXPECT_EQ(devio::error_record().err, devio::DeviceRemoved);
    dev->close();
}

// A stalled hidraw transfer (EPIPE from a node that is no socket) is the
// failure that a retry may overcome; on a socket node the same error is the
// peer gone. A pipe stands in for a hidraw node: a plain write, no socket.
TEST(HidNodeWrite, StallIsRetriedWhereASocketPeerIsGone) {
    ::signal(SIGPIPE, SIG_IGN);
    int pipe_fds[2], pair[2];
    ASSERT_EQ(::pipe(pipe_fds), 0);
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair), 0);
    ::close(pipe_fds[0]);
    ::close(pair[1]);
    const std::vector<std::uint8_t> report(20, 0x11);
    struct Case {
        int fd;
        devio::linux_hid::NodeWrite expected;
    };
    for (const Case& c : {Case{pipe_fds[1], devio::linux_hid::NodeWrite::GeneralFailure},
                          Case{pair[0], devio::linux_hid::NodeWrite::Failed}}) {
        int err = 0;
        EXPECT_EQ(devio::linux_hid::writeNode(c.fd, report, 100, err), c.expected);
        EXPECT_EQ(err, EPIPE);
    }
    ::close(pipe_fds[1]);
    ::close(pair[0]);
}

}  // namespace
