// Devices that speak the protocol through the vendor GATT service: BlueZ
// played by python3-dbusmock on a private bus, with GATT objects whose
// writes reach a simulated machine's firmware and whose value changes carry
// its answers. Discovery and the whole library's feature requests over
// GATT, the framing on the wire both ways, a database without the client
// configuration, oversized reports, writes switched off, and a device seen
// on HID and GATT at once.

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "Base/ErrorRecord.h"
#include "Base/Subscriber.h"
#include "BluezMock.h"
#include "Device/IDevice.h"
#include "Manager/CDevio.h"
#include "RunLoopHost.h"
#include "SimHost.h"
#include "TestSupport.h"
#include "Windows/GattBus.h"
#include "Windows/GattDevice.h"
#include "Windows/Win32Bus.h"

namespace bttest {
namespace {

using devio::cdevio;
using devio::test::eventually;
using Bytes = std::vector<std::uint8_t>;

constexpr unsigned kBluetoothActive = 0;
constexpr unsigned kBleActive = 1;
constexpr unsigned kBleMonitor = 2;
constexpr unsigned kUseBlevx = 3;
constexpr unsigned kGattWritesOff = 6;
constexpr std::uint16_t kPid = 0xB401;

// The platform bus as the manager makes it, on a simulated machine.
class GattHostBus : public devio::Win32Bus {
public:
    static std::shared_ptr<GattHostBus> make(simtest::SimMachine& sim) {
        auto bus = std::shared_ptr<GattHostBus>(
            new GattHostBus(sim.machine().sysfsRoot(), sim.machine().devRoot()));
        bus->init();
        return bus;
    }
    std::shared_ptr<devio::IWin32System> makeWin32System() override {
        return std::make_shared<devio::LinuxSystem>(sys_, dev_);
    }
    std::shared_ptr<devio::GattBus> gatt() {
        const auto all = secondary_busses();
        return all.size() == 1 ? std::dynamic_pointer_cast<devio::GattBus>(all[0]) : nullptr;
    }

private:
    GattHostBus(std::string sys, std::string dev)
        : Win32Bus(cdevio.manager()), sys_(std::move(sys)), dev_(std::move(dev)) {}
    std::string sys_, dev_;
};

// Reports as a GATT device delivers them, with the length before padding.
class Reader : public devio::Subscriber<devio::IHardwareDevice::Read> {
public:
    struct Read {
        Bytes report;
        unsigned size;
    };
    void onRead(std::vector<devio::Byte> report, bool, unsigned, unsigned size) override {
        std::lock_guard<std::mutex> lock(mutex_);
        reads_.push_back({std::move(report), size});
    }
    bool next(Read& out) {
        const bool got = eventually(
            [&] {
                std::lock_guard<std::mutex> lock(mutex_);
                return !reads_.empty();
            },
            std::chrono::milliseconds(5000));
        if (!got) return false;
        std::lock_guard<std::mutex> lock(mutex_);
        out = reads_.front();
        reads_.pop_front();
        return true;
    }

private:
    std::mutex mutex_;
    std::deque<Read> reads_;  // guarded by mutex_
};

// BlueZ with the GATT template on a private system bus, a host that pumps,
// the Low Energy settings given, and a radio.
struct Stage {
    explicit Stage(bool use_blevx = true, bool ble_monitor = true) {
        EXPECT_TRUE(mock.ok()) << mock.why();
        EXPECT_EQ(mock.loadGatt(GATT_TEMPLATE), "");
        EXPECT_EQ(mock.addAdapter("hci0"), "");
        EXPECT_TRUE(host.start());
        EXPECT_TRUE(cdevio.config_set(kBluetoothActive, true));
        EXPECT_TRUE(cdevio.config_set(kBleActive, true));
        EXPECT_TRUE(cdevio.config_set(kBleMonitor, ble_monitor));
        EXPECT_TRUE(cdevio.config_set(kUseBlevx, use_blevx));
    }
    ~Stage() { host.stop(); }
    // A paired Low Energy device at `address` whose GATT objects are backed
    // by the node of `id` in `firmware`.
    void gattDevice(simtest::SimMachine& firmware, const std::string& id,
                    const std::string& address, const std::string& characteristics,
                    bool descriptor = true) {
        ASSERT_EQ(mock.addDevice("hci0", address, "Vantrel Pen"), "");
        ASSERT_EQ(mock.pairDevice("hci0", address), "");
        ASSERT_EQ(mock.connectDevice("hci0", address), "");
        ASSERT_EQ(mock.makeLowEnergy("hci0", address), "");
        const std::string node =
            id.empty() ? "" : firmware.machine().nodePath(firmware.machine().hidrawOf(id));
        ASSERT_EQ(mock.addGattDevice("hci0", address, node, characteristics, descriptor, kPid), "");
    }
    PrivateSystemBus system_bus;
    BluezMock mock{system_bus};
    devio::RunLoopHost host;
};

std::string lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

const char kPen[] = R"({"devices": [{"id": "pen", "pid": "0xB401", "bus": "ble"}]})";
const char kNothing[] = R"({"devices": [{"id": "mouse", "pid": "0xC08B"}]})";

// A device that offers the protocol only through the vendor service: the
// library finds it through the pairing filter as a Low Energy device with
// a GATT data path and loads its features over GATT, every request a
// write with response of the fixed-length framing.
TEST(Gatt, VendorServiceOnlyDeviceAnswersFeatureRequests) {
    Stage stage;
    ASSERT_TRUE(stage.mock.ok());
    simtest::SimMachine firmware(kPen);
    simtest::SimMachine machine(kNothing);
    const std::string address =
        nodeAddress(firmware.machine().sysfsRoot(), firmware.machine().hidrawOf("pen"));
    stage.gattDevice(firmware, "pen", address, "fixed");
    simtest::use_machine(machine);

    std::shared_ptr<devio::IDevice> pen;
    for (const auto& device : cdevio.devices()) {
        if (device->bustype() == 3) pen = device;
    }
    ASSERT_NE(pen, nullptr);
    EXPECT_GT(pen->features().size(), 2u);
    const auto writes = stage.mock.gattWrites("hci0", address);
    ASSERT_FALSE(writes.empty());
    for (const auto& w : writes) {
        EXPECT_EQ(w.type, "request");
        EXPECT_EQ(w.value.size(), 19u);
        EXPECT_EQ(w.value[0], 0xFF);  // the device index, from byte 1 of the report
    }
}

// The framing on the wire, both ways, by the characteristics a device has:
// a write and a notification through the GattDevice of the GATT bus.
TEST(Gatt, FramingByCharacteristic) {
    Stage stage;
    ASSERT_TRUE(stage.mock.ok());
    simtest::SimMachine machine(kNothing);
    struct Case {
        const char* characteristics;
        const char* address;
        const char* written_to;  // the characteristic that takes writes
        Bytes sent;
        const char* type;
        Bytes notified;
        Bytes report;  // as delivered, before padding to 20
    };
    const Bytes seven = {0x10, 0xFF, 0x01, 0x02, 0x00, 0x00, 0x00};
    Bytes fixed_sent = {0xFF, 0x01, 0x02};
    fixed_sent.resize(19, 0);
    const std::vector<Case> cases = {
        // The variable-length framing drops the trailing zeros.
        {"variable",
         "00:1F:20:B4:01:01",
         "char0011",
         {0x01, 0x02},
         "command",
         {0x01, 0x02, 0x03, 0x04, 0x05},
         {0x10, 0xFF, 0x01, 0x02, 0x03, 0x04, 0x05}},
        // Eight bytes make a long report, without the 0xFF of the other framing.
        {"fixed",
         "00:1F:20:B4:01:02",
         "char0011",
         fixed_sent,
         "request",
         {0xFF, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07},
         {0x11, 0xFF, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07}},
        // With both, the fixed length wins, and writes go to the one found last.
        {"fixed,variable",
         "00:1F:20:B4:01:03",
         "char0015",
         fixed_sent,
         "request",
         {0xFF, 0x01},
         {0x10, 0xFF, 0x01}},
    };
    for (const Case& c : cases) stage.gattDevice(machine, "", c.address, c.characteristics);
    auto bus = GattHostBus::make(machine);
    auto gatt = bus->gatt();
    ASSERT_NE(gatt, nullptr);
    const auto devices = gatt->devices();
    ASSERT_EQ(devices.size(), cases.size());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.characteristics);
        const std::string path = lower(BluezMock::devicePath("hci0", c.address));
        const auto it = std::find_if(devices.begin(), devices.end(),
                                     [&](const auto& d) { return d->path() == path; });
        ASSERT_NE(it, devices.end());
        const auto& device = *it;
        EXPECT_EQ(device->bustype(), 4);
        Reader reader;
        ASSERT_TRUE(reader.subscribe(device, devio::DeliveryDirect, ""));
        ASSERT_TRUE(device->open());
        EXPECT_EQ(device->pid(), kPid);
        ASSERT_TRUE(device->write(seven, false));
        const auto writes = stage.mock.gattWrites("hci0", c.address);
        ASSERT_EQ(writes.size(), 1u);
        const std::string device_path = BluezMock::devicePath("hci0", c.address);
        EXPECT_EQ(writes[0].characteristic, device_path + "/service0010/" + c.written_to);
        EXPECT_EQ(writes[0].value, c.sent);
        EXPECT_EQ(writes[0].type, c.type);

        ASSERT_EQ(stage.mock.gattNotify(device_path + "/service0010/char0011", c.notified), "");
        Reader::Read read;
        ASSERT_TRUE(reader.next(read));
        EXPECT_EQ(read.size, c.report.size());
        Bytes padded = c.report;
        padded.resize(20, 0);
        EXPECT_EQ(read.report, padded);
        reader.unsubscribe(device);
        device->close();
    }
}

// Failures before anything reaches the device: a database whose I/O
// characteristic has no client configuration is no device (err 1); an
// oversized report fails with err 25 and a write while writes are off with
// err 55, and neither is sent.
TEST(Gatt, RefusalsSendNothing) {
    Stage stage;
    ASSERT_TRUE(stage.mock.ok());
    simtest::SimMachine machine(kNothing);
    const std::string bare = "00:1F:20:B4:02:01";
    const std::string good = "00:1F:20:B4:02:02";
    stage.gattDevice(machine, "", bare, "fixed", false);
    stage.gattDevice(machine, "", good, "fixed");
    auto bus = GattHostBus::make(machine);
    auto gatt = bus->gatt();
    ASSERT_NE(gatt, nullptr);
    const auto devices = gatt->devices();
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0]->path(), lower(BluezMock::devicePath("hci0", good)));

    devio::GattDevice without(gatt, bus, devio::makePlatformGatt(nullptr),
                              lower(BluezMock::devicePath("hci0", bare)));
    EXPECT_FALSE(without.open());
    EXPECT_EQ(devio::error_record().err, devio::InternalError);

    auto device = devices[0];
    ASSERT_TRUE(device->open());
    EXPECT_FALSE(device->write(Bytes(21, 0x11), false));
    EXPECT_EQ(devio::error_record().err, devio::WriteExceedsCollectionSize);
    EXPECT_FALSE(device->write({0x10}, false));
    EXPECT_EQ(devio::error_record().err, devio::WriteTooShort);
    EXPECT_FALSE(device->write({0x10, 0xFF, 0x00, 0x0A}, true));
    EXPECT_EQ(devio::error_record().err, devio::CannotPerformWriteWithoutReadThreadRunning);
    ASSERT_TRUE(cdevio.config_set(kGattWritesOff, true));
    EXPECT_FALSE(device->write({0x10, 0xFF, 0x00, 0x0A}, false));
    EXPECT_EQ(devio::error_record().err, devio::Abandoned);
    EXPECT_TRUE(stage.mock.gattWrites("hci0", good).empty());
    ASSERT_TRUE(cdevio.config_set(kGattWritesOff, false));
    device->close();
}

// GATT interfaces that come and go in BlueZ reach the GATT bus's
// subscriber as its devices' arrival and removal, by path.
TEST(Gatt, ServicesThatComeAndGoArePluggedAndUnplugged) {
    Stage stage;
    ASSERT_TRUE(stage.mock.ok());
    simtest::SimMachine machine(kNothing);
    auto bus = GattHostBus::make(machine);
    auto gatt = bus->gatt();
    ASSERT_NE(gatt, nullptr);
    class Plugs : public devio::Subscriber<devio::IHardwareBus::PlugUnplug> {
    public:
        void onPlug(const std::shared_ptr<devio::IHardwareDevice>& d) override {
            add("plug " + d->path());
        }
        void onUnplug(const std::shared_ptr<devio::IHardwareDevice>& d) override {
            add("unplug " + d->path());
        }
        bool saw(const std::string& what) {
            return eventually(
                [&] {
                    std::lock_guard<std::mutex> lock(mutex_);
                    return std::find(seen_.begin(), seen_.end(), what) != seen_.end();
                },
                std::chrono::milliseconds(5000));
        }

    private:
        void add(std::string what) {
            std::lock_guard<std::mutex> lock(mutex_);
            seen_.push_back(std::move(what));
        }
        std::mutex mutex_;
        std::vector<std::string> seen_;  // guarded by mutex_
    } plugs;
    ASSERT_TRUE(plugs.subscribe(gatt, devio::DeliveryDirect, ""));
    const std::string address = "00:1F:20:B4:03:01";
    stage.gattDevice(machine, "", address, "variable");
    const std::string path = lower(BluezMock::devicePath("hci0", address));
    EXPECT_TRUE(plugs.saw("plug " + path));
    ASSERT_EQ(stage.mock.removeGattDevice("hci0", address), "");
    EXPECT_TRUE(plugs.saw("unplug " + path));
    plugs.unsubscribe(gatt);
}

// A machine without BlueZ has no GATT device, which is no failure: the
// GATT bus lists nothing and leaves no error behind.
TEST(Gatt, WithoutBlueZThereIsNoGattDevice) {
    simtest::SimMachine machine(kNothing);
    PrivateSystemBus system_bus;
    ASSERT_TRUE(system_bus.ok());
    ASSERT_TRUE(cdevio.config_set(kBleActive, true));
    auto bus = GattHostBus::make(machine);
    auto gatt = bus->gatt();
    ASSERT_NE(gatt, nullptr);
    devio::set_error(devio::InternalError);
    EXPECT_TRUE(gatt->devices().empty());
    EXPECT_EQ(devio::error_record().err, devio::Success);
}

// A Low Energy device seen on HID and on GATT at once: one device for the
// host, whose data path is the GATT interface with use_blevx and the HID
// one without; the other is its monitor, never written to. A device
// answers on the channel it was asked on, so the GATT side has firmware of
// its own: a twin of the same identity and address.
void seenOnBoth(bool use_blevx) {
    Stage stage(use_blevx);
    ASSERT_TRUE(stage.mock.ok());
    simtest::SimMachine machine(kPen);
    simtest::SimMachine twin(kPen);
    const std::string address =
        nodeAddress(machine.machine().sysfsRoot(), machine.machine().hidrawOf("pen"));
    ASSERT_EQ(nodeAddress(twin.machine().sysfsRoot(), twin.machine().hidrawOf("pen")), address);
    stage.gattDevice(twin, "pen", address, "fixed");
    simtest::use_machine(machine);

    testing::internal::CaptureStderr();
    const auto devices = cdevio.devices();
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0]->bustype(), 3);
    const std::size_t features = devices[0]->features().size();
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_GT(features, 2u) << log;
    EXPECT_NE(log.find("detect_and_attach_monitor is monitor"), std::string::npos) << log;
    EXPECT_NE(log.find(use_blevx ? "is bluetooth low energy (blevx)"
                                 : "is bluetooth low energy (blevxp)"),
              std::string::npos);
    EXPECT_EQ(stage.mock.gattWrites("hci0", address).empty(), !use_blevx);
}

TEST(Gatt, SeenOnHidAndGattWithBlevxTheGattPathCarriesData) {
    seenOnBoth(true);
}

TEST(Gatt, SeenOnHidAndGattWithoutBlevxTheHidPathCarriesData) {
    seenOnBoth(false);
}

}  // namespace
}  // namespace bttest
