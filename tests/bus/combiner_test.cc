// The combiner over a simulated machine: pieces of one device joined into
// one device that reads from every piece and writes to the piece with room,
// complete devices passed through, and the order of removals when a piece
// goes.

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Base/ErrorRecord.h"
#include "Base/Subscriber.h"
#include "Bus/Combiner/CombinerBus.h"
#include "SimHost.h"

namespace simtest {
namespace {

using devio::Byte;
using devio::CombinerBus;
using devio::CombinerDevice;
using devio::IHardwareBus;
using devio::IHardwareDevice;

// A whole device on one node, and a device whose short and long reports
// are two collections of another node.
const char* const kDesk = R"({"devices": [
    {"id": "whole", "pid": "0xC08B"},
    {"id": "split", "pid": "0xB021", "collections": [
        {"usage_page": "0xFF00", "usage": 1, "report_id": 16, "size": 7},
        {"usage_page": "0xFF00", "usage": 2, "report_id": 17, "size": 20}]}]})";

// Every event of the bus, as "plug PATH" / "unplug PATH", in order.
class BusLog : public devio::Subscriber<IHardwareBus::PlugUnplug> {
public:
    void onPlug(const std::shared_ptr<IHardwareDevice>& d) override { add("plug " + d->path()); }
    void onUnplug(const std::shared_ptr<IHardwareDevice>& d) override {
        add("unplug " + d->path());
    }
    std::vector<std::string> take() {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(events_, {});
    }

private:
    void add(std::string e) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(std::move(e));
    }
    std::mutex mutex_;
    std::vector<std::string> events_;
};

// The sizes of the reports one device wrote, or read.
class Traffic : public devio::Subscriber<IHardwareDevice::Write>,
                public devio::Subscriber<IHardwareDevice::Read> {
public:
    void onWrite(std::vector<Byte> report, devio::ErrorCode err, unsigned) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (err == devio::Success) written_.push_back(report.size());
    }
    void onRead(std::vector<Byte> report, bool, unsigned, unsigned) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!report.empty()) read_.push_back(report);
    }
    std::vector<std::size_t> written() {
        std::lock_guard<std::mutex> lock(mutex_);
        return written_;
    }
    // The answer to `command` (same id, feature index and function), within
    // a generous time.
    bool answered(const std::vector<Byte>& command) {
        for (int i = 0; i < 300; ++i) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                for (const auto& r : read_) {
                    if (r.size() == command.size() && r[0] == command[0] && r[2] == command[2] &&
                        r[3] == command[3])
                        return true;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

private:
    std::mutex mutex_;
    std::vector<std::size_t> written_;
    std::vector<std::vector<Byte>> read_;
};

std::vector<Byte> version_request(std::size_t size) {
    std::vector<Byte> r(size, 0);
    r[0] = size == 7 ? 0x10 : 0x11;
    r[1] = 0xFF;
    r[2] = 0x00;  // root feature
    r[3] = 0x1A;  // protocol version, software id 10
    return r;
}

TEST(Combiner, PiecesBecomeOneDeviceThatReadsFromBothAndWritesWhereTheReportFits) {
    SimMachine sim(kDesk);
    auto bus = std::make_shared<CombinerBus>(sim.bus(), std::weak_ptr<devio::IDeviceManager>());
    BusLog log;
    ASSERT_TRUE(log.subscribe(bus, devio::DeliveryDirect));

    auto found = bus->devices();
    ASSERT_EQ(found.size(), 2u);
    std::shared_ptr<CombinerDevice> split;
    for (const auto& d : found) {
        if (auto c = std::dynamic_pointer_cast<CombinerDevice>(d)) split = c;
    }
    ASSERT_TRUE(split) << "the split device was not combined";
    // The complete device passes through unwrapped, under its own path.
    const auto whole = found[found[0] == split ? 1 : 0];
    EXPECT_TRUE(std::dynamic_pointer_cast<devio::Win32Device>(whole));
    EXPECT_EQ(whole->pid(), 0xC08B);
    EXPECT_EQ(split->pid(), 0xB021);
    EXPECT_TRUE(split->whole());
    EXPECT_EQ(log.take(), std::vector<std::string>{"plug " + split->path()});

    // Enumerating again finds the same combined device, with no new event.
    found = bus->devices();
    ASSERT_EQ(found.size(), 2u);
    EXPECT_TRUE(found[0] == split || found[1] == split);
    EXPECT_TRUE(log.take().empty());

    auto pieces = split->current_pieces();
    ASSERT_EQ(pieces.size(), 2u);
    Traffic short_piece, long_piece, combined;
    ASSERT_TRUE(short_piece.devio::Subscriber<IHardwareDevice::Write>::subscribe(pieces.at(1), 1));
    ASSERT_TRUE(long_piece.devio::Subscriber<IHardwareDevice::Write>::subscribe(pieces.at(2), 1));
    ASSERT_TRUE(combined.devio::Subscriber<IHardwareDevice::Read>::subscribe(split, 1));
    ASSERT_TRUE(split->open()) << devio::error_record().err;

    const auto short_request = version_request(7);
    const auto long_request = version_request(20);
    ASSERT_TRUE(split->write(short_request, true)) << devio::error_record().err;
    ASSERT_TRUE(split->write(long_request, true)) << devio::error_record().err;
    EXPECT_EQ(short_piece.written(), std::vector<std::size_t>{7});
    EXPECT_EQ(long_piece.written(), std::vector<std::size_t>{20});
    // Each answer comes back in its own collection, and both reach the
    // reader of the combined device.
    EXPECT_TRUE(combined.answered(short_request));
    EXPECT_TRUE(combined.answered(long_request));

    devio::set_error(devio::Success);
    EXPECT_FALSE(split->write(std::vector<Byte>(21, 0x11), true));
    EXPECT_EQ(devio::error_record().err, devio::WriteExceedsCollectionSize);
    split->close();
}

TEST(Combiner, LosingAPieceUnplugsTheDeviceAndItsReturnPlugsItAgain) {
    SimMachine sim(kDesk);
    auto bus = std::make_shared<CombinerBus>(sim.bus(), std::weak_ptr<devio::IDeviceManager>());
    BusLog log;
    ASSERT_TRUE(log.subscribe(bus, devio::DeliveryDirect));
    std::shared_ptr<CombinerDevice> split;
    for (const auto& d : bus->devices()) {
        if (auto c = std::dynamic_pointer_cast<CombinerDevice>(d)) split = c;
    }
    ASSERT_TRUE(split);
    log.take();
    const auto pieces = split->current_pieces();
    const auto short_piece = pieces.at(1), long_piece = pieces.at(2);

    // As the platform bus tells it: a piece goes, then the other one.
    bus->onUnplug(long_piece);
    EXPECT_EQ(log.take(), (std::vector<std::string>{"unplug " + long_piece->path(),
                                                    "unplug " + split->path()}));
    EXPECT_FALSE(split->whole());
    bus->onUnplug(short_piece);
    EXPECT_EQ(log.take(), std::vector<std::string>{"unplug " + short_piece->path()});
    EXPECT_TRUE(split->current_pieces().empty());

    // A piece that comes back is merged with what the bus below has now: the
    // device is whole again and announced once, as a new object.
    bus->onPlug(long_piece);
    const auto events = log.take();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], "plug " + split->path());
    // A piece that was already merged changes nothing.
    bus->onPlug(short_piece);
    EXPECT_TRUE(log.take().empty());
}

}  // namespace
}  // namespace simtest
