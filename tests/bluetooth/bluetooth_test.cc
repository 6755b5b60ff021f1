// The Bluetooth monitor over BlueZ, played by python3-dbusmock on a private
// bus, matched by address to a simulated machine whose Bluetooth nodes the
// real hidraw binding reads: radios that come and go, classic and Low
// Energy devices that connect, disconnect and unpair, the path-to-address
// lookup with its cache, the grouping and naming of Bluetooth nodes, and a
// machine without BlueZ.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Base/ErrorRecord.h"
#include "Base/Subscriber.h"
#include "BluezMock.h"
#include "Bus/IBluetoothDevice.h"
#include "Device/IDevice.h"
#include "Manager/CDevio.h"
#include "RunLoopHost.h"
#include "SimHost.h"
#include "TestSupport.h"
#include "Windows/BluetoothMicrosoftBus.h"
#include "Windows/Win32Bus.h"

namespace bttest {
namespace {

using devio::cdevio;
using devio::IBluetoothBus;
using devio::IBluetoothDevice;
using devio::test::eventually;

constexpr const char kHci0[] = "/org/bluez/hci0";
constexpr const char kHci1[] = "/org/bluez/hci1";
constexpr unsigned kBluetoothActive = 0;
constexpr unsigned kBleActive = 1;

// A platform bus made as the manager makes it, with its monitor, on a
// simulated machine.
class BtBus : public devio::Win32Bus {
public:
    static std::shared_ptr<BtBus> make(simtest::SimMachine& sim) {
        auto bus =
            std::shared_ptr<BtBus>(new BtBus(sim.machine().sysfsRoot(), sim.machine().devRoot()));
        bus->init();
        return bus;
    }
    std::shared_ptr<devio::IWin32System> makeWin32System() override {
        return std::make_shared<devio::LinuxSystem>(sys_, dev_);
    }
    std::shared_ptr<devio::BluetoothMicrosoftBus> monitor() {
        const auto all = bluetooth_busses();
        return all.size() == 1 ? std::dynamic_pointer_cast<devio::BluetoothMicrosoftBus>(all[0])
                               : nullptr;
    }
    // Interface paths by the simulated node they sit on.
    std::map<int, std::vector<std::string>> paths(simtest::SimMachine& sim,
                                                  const std::vector<std::string>& ids) {
        std::map<int, std::vector<std::string>> out;
        std::shared_ptr<devio::IWin32System> system;
        lazyStart(&system);
        auto linux_system = std::dynamic_pointer_cast<devio::LinuxSystem>(system);
        for (const std::string& id : ids) {
            const int node = sim.machine().hidrawOf(id);
            for (const auto& found : linux_system->interfacesOf("hidraw" + std::to_string(node)))
                out[node].push_back(found.path);
        }
        return out;
    }

private:
    BtBus(std::string sys, std::string dev)
        : Win32Bus(cdevio.manager()), sys_(std::move(sys)), dev_(std::move(dev)) {}
    std::string sys_, dev_;
};

// Every event of one device and of the radios, in order, with the thread
// it came on.
class Recorder : public devio::Subscriber<IBluetoothDevice::BtConnect>,
                 public devio::Subscriber<IBluetoothDevice::BtFastConnect>,
                 public devio::Subscriber<IBluetoothDevice::BtUnpair>,
                 public devio::Subscriber<IBluetoothBus::RadioArrivalRemovalExternal> {
public:
    struct Event {
        std::string what;
        std::thread::id thread;
    };
    bool follow(const std::shared_ptr<IBluetoothDevice>& device) {
        // The fast events must take effect at once; the others wait for
        // the host's thread.
        return Subscriber<IBluetoothDevice::BtFastConnect>::subscribe(device,
                                                                      devio::DeliveryDirect) &&
               Subscriber<IBluetoothDevice::BtConnect>::subscribe(device, devio::DeliveryRunLoop) &&
               Subscriber<IBluetoothDevice::BtUnpair>::subscribe(device, devio::DeliveryRunLoop);
    }
    bool radios(const std::shared_ptr<IBluetoothBus>& bus) {
        return Subscriber<IBluetoothBus::RadioArrivalRemovalExternal>::subscribe(
            bus, devio::DeliveryDirect);
    }

    void onBtConnect(const std::string& radio) override { add("connect " + radio); }
    void onBtPairingResolve(const std::string& radio) override { add("resolve " + radio); }
    void onBtDisconnect() override { add("disconnect"); }
    void onBtFastConnect(const std::string& radio) override { add("fast-connect " + radio); }
    void onBtFastDisconnect() override { add("fast-disconnect"); }
    void onBtUnpair(const std::string& radio) override { add("unpair " + radio); }
    void onRadioArrival(const std::string& radio) override { add("radio+ " + radio); }
    void onRadioRemoval(const std::string& radio) override { add("radio- " + radio); }

    // Waits for `what`, then returns everything told since the last wait.
    std::vector<Event> until(const std::string& what) { return until(std::vector{what}); }
    // The same for several events whose order between them is not fixed.
    std::vector<Event> until(const std::vector<std::string>& all) {
        std::vector<Event> taken;
        eventually(
            [&] {
                std::lock_guard<std::mutex> lock(mutex_);
                std::size_t last = seen_;
                for (const std::string& what : all) {
                    std::size_t i = seen_;
                    while (i < events_.size() && events_[i].what != what) ++i;
                    if (i == events_.size()) return false;
                    last = std::max(last, i + 1);
                }
                taken.assign(events_.begin() + static_cast<long>(seen_),
                             events_.begin() + static_cast<long>(last));
                seen_ = last;
                return true;
            },
            std::chrono::milliseconds(10000));
        return taken;
    }

private:
    void add(const std::string& what) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back({what, std::this_thread::get_id()});
    }
    std::mutex mutex_;
    std::vector<Event> events_;  // guarded by mutex_
    std::size_t seen_ = 0;       // guarded by mutex_
};

std::vector<std::string> names(const std::vector<Recorder::Event>& events) {
    std::vector<std::string> out;
    for (const auto& e : events) out.push_back(e.what);
    return out;
}

// "00:1F:20:B3:5B:01" as the library writes it: "001F:20:B3:5B01".
std::string addressText(const std::string& address) {
    std::string hex;
    for (char c : address) {
        if (c != ':') hex += c;
    }
    return hex.substr(0, 4) + ":" + hex.substr(4, 2) + ":" + hex.substr(6);
}

// BlueZ on a private system bus, a host that pumps, and Bluetooth on.
struct Stage {
    Stage() {
        EXPECT_TRUE(mock.ok()) << mock.why();
        EXPECT_TRUE(host.start());
        EXPECT_TRUE(cdevio.config_set(kBluetoothActive, true));
        EXPECT_TRUE(cdevio.config_set(kBleActive, true));
    }
    ~Stage() { host.stop(); }
    PrivateSystemBus system_bus;
    BluezMock mock{system_bus};
    devio::RunLoopHost host;
};

// A paired classic device connects and disconnects (the fast event at once
// on the bus's thread, the other on the host's), a radio arrives, and the
// device's removal from BlueZ unpairs it. Answers of the path lookup, the
// negative ones too, are kept.
TEST(Bluetooth, ClassicDeviceConnectsDisconnectsAndUnpairs) {
    Stage stage;
    ASSERT_TRUE(stage.mock.ok());
    simtest::SimMachine sim(R"({"devices": [
        {"id": "keys", "pid": "0xB35B", "bus": "bluetooth"},
        {"id": "other", "pid": "0xB35C", "bus": "bluetooth"},
        {"id": "mouse", "pid": "0xC08B"}]})");
    auto bus = BtBus::make(sim);
    auto monitor = bus->monitor();
    ASSERT_NE(monitor, nullptr);
    auto paths = bus->paths(sim, {"keys", "other", "mouse"});
    const std::string keys = paths[sim.machine().hidrawOf("keys")].at(0);
    const std::string other = paths[sim.machine().hidrawOf("other")].at(0);
    const std::string mouse = paths[sim.machine().hidrawOf("mouse")].at(0);
    const std::string address =
        nodeAddress(sim.machine().sysfsRoot(), sim.machine().hidrawOf("keys"));
    const std::string other_address =
        nodeAddress(sim.machine().sysfsRoot(), sim.machine().hidrawOf("other"));
    auto& mock = stage.mock;
    ASSERT_EQ(mock.addAdapter("hci0"), "");
    ASSERT_EQ(mock.addDevice("hci0", address, "Vantrel Keys"), "");
    ASSERT_EQ(mock.pairDevice("hci0", address), "");

    auto device = monitor->device_paired_on_path(keys);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->bustype(), 2);
    EXPECT_EQ(device->address(), addressText(address));
    EXPECT_EQ(monitor->device_paired_on_path(mouse), nullptr);
    // Unknown to BlueZ when first asked, and so for the life of the bus.
    EXPECT_EQ(monitor->device_paired_on_path(other), nullptr);
    ASSERT_EQ(mock.addDevice("hci0", other_address, "Other"), "");
    ASSERT_EQ(mock.pairDevice("hci0", other_address), "");
    EXPECT_EQ(monitor->device_paired_on_path(other), nullptr);

    Recorder rec;
    ASSERT_TRUE(rec.radios(monitor));
    ASSERT_TRUE(rec.follow(device));
    EXPECT_EQ(names(rec.until(std::string("radio+ ") + kHci0)),
              std::vector<std::string>{std::string("radio+ ") + kHci0});
    EXPECT_FALSE(device->connected());
    EXPECT_EQ(device->name(), "Vantrel Keys");

    ASSERT_EQ(mock.connectDevice("hci0", address), "");
    auto events = rec.until(std::string("connect ") + kHci0);
    ASSERT_EQ(names(events), (std::vector<std::string>{std::string("fast-connect ") + kHci0,
                                                       std::string("connect ") + kHci0}));
    EXPECT_NE(events[0].thread, stage.host.thread_id());
    EXPECT_EQ(events[1].thread, stage.host.thread_id());
    EXPECT_TRUE(device->connected());
    EXPECT_EQ(device->connected_radio(keys, 2), kHci0);

    ASSERT_EQ(mock.disconnectDevice("hci0", address), "");
    EXPECT_EQ(names(rec.until("disconnect")),
              (std::vector<std::string>{"fast-disconnect", "disconnect"}));
    EXPECT_FALSE(device->connected());

    ASSERT_EQ(mock.addAdapter("hci1"), "");
    EXPECT_EQ(names(rec.until(std::string("radio+ ") + kHci1)),
              std::vector<std::string>{std::string("radio+ ") + kHci1});
    EXPECT_TRUE(device->radio_present(kHci1));

    ASSERT_EQ(mock.removeDevice("hci0", address), "");
    EXPECT_EQ(names(rec.until(std::string("unpair ") + kHci0)),
              std::vector<std::string>{std::string("unpair ") + kHci0});
    std::string radio = kHci0;
    EXPECT_TRUE(device->verify_pairing(radio));
    EXPECT_EQ(radio, "");
    EXPECT_EQ(monitor->device_paired_on_path(keys), device);
}

// Low Energy devices: bus type 3, their pieces grouped by device although
// all of them hang below uhid, paths that stay across a reconnect, the link
// that comes and goes with the radio, and the unpairing that ends both.
TEST(Bluetooth, LowEnergyDevicesByAddressAcrossRadioAndReconnect) {
    Stage stage;
    ASSERT_TRUE(stage.mock.ok());
    const char* pieces = R"("collections": [
        {"usage": "0x0301", "report_id": "0x10", "size": 7},
        {"usage": "0x0302", "report_id": "0x11", "size": 20}])";
    simtest::SimMachine sim(std::string(R"({"devices": [)") +
                            R"({"id": "pen", "pid": "0xB401", "bus": "ble", )" + pieces + "}, " +
                            R"({"id": "pad", "pid": "0xB402", "bus": "ble", )" + pieces + "}]}");
    auto bus = BtBus::make(sim);
    auto monitor = bus->monitor();
    ASSERT_NE(monitor, nullptr);

    const auto found = bus->devices();
    ASSERT_EQ(found.size(), 4u);
    std::map<std::string, std::set<std::string>> by_key;
    std::set<std::string> before;
    for (const auto& d : found) {
        ASSERT_TRUE(d->open());
        by_key[d->combine_key()].insert(d->path());
        before.insert(d->path());
        d->close();
        EXPECT_NE(d->path().find("hidraw@bt-"), std::string::npos) << d->path();
    }
    ASSERT_EQ(by_key.size(), 2u);
    for (const auto& [key, group] : by_key) {
        ASSERT_EQ(group.size(), 2u) << key;
        EXPECT_EQ(group.begin()->substr(0, group.begin()->find('#')),
                  group.rbegin()->substr(0, group.rbegin()->find('#')));
    }
    ASSERT_EQ(sim.command("replug pen"), "ok");
    std::set<std::string> after;
    for (const auto& d : bus->devices()) after.insert(d->path());
    EXPECT_EQ(after, before);

    const int node = sim.machine().hidrawOf("pen");
    const std::string address = nodeAddress(sim.machine().sysfsRoot(), node);
    const std::string pen = bus->paths(sim, {"pen"})[node].at(0);
    const std::string pad = bus->paths(sim, {"pad"})[sim.machine().hidrawOf("pad")].at(0);
    auto& mock = stage.mock;
    ASSERT_EQ(mock.addAdapter("hci0"), "");
    ASSERT_EQ(mock.addDevice("hci0", address, "Vantrel Pen"), "");
    ASSERT_EQ(mock.pairDevice("hci0", address), "");
    ASSERT_EQ(mock.makeLowEnergy("hci0", address), "");
    auto device = monitor->device_paired_on_path(pen);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->bustype(), 3);
    EXPECT_EQ(monitor->device_paired_on_path(pad), nullptr);

    Recorder rec;
    ASSERT_TRUE(rec.radios(monitor));
    ASSERT_TRUE(rec.follow(device));
    rec.until(std::string("radio+ ") + kHci0);
    ASSERT_EQ(mock.connectDevice("hci0", address), "");
    EXPECT_EQ(names(rec.until(std::string("connect ") + kHci0)),
              (std::vector<std::string>{std::string("fast-connect ") + kHci0,
                                        std::string("connect ") + kHci0}));

    // A radio that goes takes its connections with it. The radio's event is
    // direct here and the disconnect waits for the host: their order is open.
    ASSERT_EQ(mock.removeAdapter("hci0"), "");
    auto gone = names(rec.until({std::string("radio- ") + kHci0, "disconnect"}));
    ASSERT_EQ(gone.size(), 3u);
    EXPECT_EQ(gone[0], "fast-disconnect");
    EXPECT_EQ(std::set<std::string>(gone.begin() + 1, gone.end()),
              (std::set<std::string>{"disconnect", std::string("radio- ") + kHci0}));
    EXPECT_FALSE(device->radio_present(kHci0));

    ASSERT_EQ(mock.addAdapter("hci0"), "");
    rec.until(std::string("radio+ ") + kHci0);
    ASSERT_EQ(mock.disconnectDevice("hci0", address), "");
    rec.until("disconnect");
    ASSERT_EQ(mock.connectDevice("hci0", address), "");
    rec.until(std::string("connect ") + kHci0);
    ASSERT_EQ(mock.setPaired("hci0", address, false), "");
    EXPECT_EQ(names(rec.until(std::string("unpair ") + kHci0)),
              (std::vector<std::string>{"fast-disconnect", "disconnect",
                                        std::string("unpair ") + kHci0}));
}

// A Low Energy device with two HID services has two nodes with one address:
// each keeps its own path across reconnects in either order, and their
// pieces meet by the address.
TEST(Bluetooth, NodesOfOneLowEnergyDeviceKeepTheirOwnPaths) {
    simtest::SimMachine sim(R"({"devices": [
        {"id": "keys", "pid": "0xB410", "bus": "ble", "address": "00:1f:20:aa:bb:cc",
         "collections": [{"usage": "0x0301", "report_id": "0x10", "size": 7}]},
        {"id": "media", "pid": "0xB411", "bus": "ble", "address": "00:1f:20:aa:bb:cc",
         "collections": [{"usage": "0x0302", "report_id": "0x11", "size": 20}]}]})");
    auto bus = BtBus::make(sim);
    const auto seen = [&] {
        std::map<std::string, int> pids;
        std::set<std::string> keys;
        for (const auto& d : bus->devices()) {
            EXPECT_NE(d->path().find("hidraw@bt-"), std::string::npos) << d->path();
            EXPECT_TRUE(d->open());
            pids[d->path()] = d->pid();
            keys.insert(d->combine_key());
            d->close();
        }
        EXPECT_EQ(keys.size(), 1u);
        return pids;
    };
    const auto before = seen();
    ASSERT_EQ(before.size(), 2u);
    ASSERT_EQ(sim.command("unplug keys"), "ok");
    ASSERT_EQ(sim.command("unplug media"), "ok");
    ASSERT_EQ(sim.command("plug media"), "ok");
    ASSERT_EQ(sim.command("plug keys"), "ok");
    EXPECT_EQ(sim.machine().hidrawOf("media"), 0);
    EXPECT_EQ(seen(), before);
}

// BlueZ that ends takes its radios, and their connections, with it.
TEST(Bluetooth, BlueZThatEndsTakesItsRadios) {
    Stage stage;
    ASSERT_TRUE(stage.mock.ok());
    simtest::SimMachine sim(
        R"({"devices": [{"id": "keys", "pid": "0xB35B", "bus": "bluetooth"}]})");
    auto bus = BtBus::make(sim);
    const int node = sim.machine().hidrawOf("keys");
    const std::string address = nodeAddress(sim.machine().sysfsRoot(), node);
    auto& mock = stage.mock;
    ASSERT_EQ(mock.addAdapter("hci0"), "");
    ASSERT_EQ(mock.addAdapter("hci1"), "");
    ASSERT_EQ(mock.addDevice("hci1", address, "Vantrel Keys"), "");
    ASSERT_EQ(mock.pairDevice("hci1", address), "");
    ASSERT_EQ(mock.connectDevice("hci1", address), "");
    auto device = bus->monitor()->device_paired_on_path(bus->paths(sim, {"keys"})[node].at(0));
    ASSERT_NE(device, nullptr);
    Recorder rec;
    ASSERT_TRUE(rec.radios(bus->monitor()));
    ASSERT_TRUE(rec.follow(device));
    rec.until({std::string("radio+ ") + kHci0, std::string("radio+ ") + kHci1});
    ASSERT_TRUE(device->connected());
    EXPECT_EQ(device->connected_radio({}, devio::kBusTypeNoPathLookup), kHci1);

    mock.stop();
    auto gone = names(
        rec.until({std::string("radio- ") + kHci0, std::string("radio- ") + kHci1, "disconnect"}));
    EXPECT_EQ(
        std::set<std::string>(gone.begin(), gone.end()),
        (std::set<std::string>{"fast-disconnect", "disconnect", std::string("radio- ") + kHci0,
                               std::string("radio- ") + kHci1}));
    EXPECT_FALSE(device->radio_present(kHci1));
}

// Arrivals, removals and connections as the library's host sees them.
class HostView : public devio::Subscriber<devio::IDeviceManager::ArrivalRemoval>,
                 public devio::Subscriber<devio::IDevice::Connect> {
public:
    void onDeviceArrival(const std::shared_ptr<devio::IDevice>& d) override {
        add("arrival " + std::to_string(d->bustype()));
    }
    void onDeviceRemoval(const std::shared_ptr<devio::IDevice>&) override { add("removal"); }
    void onConnect(const std::shared_ptr<devio::IDevice>&, bool) override { add("connect"); }
    void onDisconnect(const std::shared_ptr<devio::IDevice>&) override { add("disconnect"); }
    bool watch() {
        return Subscriber<devio::IDeviceManager::ArrivalRemoval>::subscribe(cdevio.manager(),
                                                                            devio::DeliveryDirect);
    }
    bool follow(const std::shared_ptr<devio::IDevice>& device) {
        return Subscriber<devio::IDevice::Connect>::subscribe(device, devio::DeliveryDirect);
    }
    void leave(const std::shared_ptr<devio::IDevice>& device) {
        Subscriber<devio::IDevice::Connect>::unsubscribe(device);
        Subscriber<devio::IDeviceManager::ArrivalRemoval>::unsubscribe(cdevio.manager());
    }
    bool saw(const std::string& what, std::size_t times = 1) {
        return eventually(
            [&] {
                std::lock_guard<std::mutex> lock(mutex_);
                return static_cast<std::size_t>(std::count(seen_.begin(), seen_.end(), what)) >=
                       times;
            },
            std::chrono::milliseconds(10000));
    }

private:
    void add(const std::string& what) {
        std::lock_guard<std::mutex> lock(mutex_);
        seen_.push_back(what);
    }
    std::mutex mutex_;
    std::vector<std::string> seen_;  // guarded by mutex_
};

// The whole library on a machine with BlueZ: the paired classic device
// arrives through the pairing filter as bus type 2, its disconnection and
// connection in BlueZ reach the host as the device's, and its unpairing
// removes it.
TEST(Bluetooth, ThePairingFilterHearsTheMonitor) {
    Stage stage;
    ASSERT_TRUE(stage.mock.ok());
    simtest::SimMachine sim(
        R"({"devices": [{"id": "keys", "pid": "0xB35B", "bus": "bluetooth"}]})");
    const std::string address =
        nodeAddress(sim.machine().sysfsRoot(), sim.machine().hidrawOf("keys"));
    auto& mock = stage.mock;
    ASSERT_EQ(mock.addAdapter("hci0"), "");
    ASSERT_EQ(mock.addDevice("hci0", address, "Vantrel Keys"), "");
    ASSERT_EQ(mock.pairDevice("hci0", address), "");
    ASSERT_EQ(mock.connectDevice("hci0", address), "");
    simtest::use_machine(sim);
    HostView view;
    ASSERT_TRUE(view.watch());
    const auto devices = cdevio.devices();
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0]->bustype(), 2);
    ASSERT_TRUE(view.follow(devices[0]));

    ASSERT_EQ(mock.disconnectDevice("hci0", address), "");
    EXPECT_TRUE(view.saw("disconnect"));
    ASSERT_EQ(mock.connectDevice("hci0", address), "");
    EXPECT_TRUE(view.saw("connect"));
    ASSERT_EQ(mock.removeDevice("hci0", address), "");
    EXPECT_TRUE(view.saw("removal"));
    view.leave(devices[0]);
}

// Without BlueZ, whether the system bus is there or not, the monitor is
// inactive and says so once; the lookup still answers from the node, a
// subscriber is not refused, and the bus's other devices work.
TEST(Bluetooth, WithoutBlueZTheMonitorIsInactive) {
    simtest::SimMachine sim(R"({"devices": [
        {"id": "keys", "pid": "0xB35B", "bus": "bluetooth"},
        {"id": "mouse", "pid": "0xC08B"}]})");
    devio::RunLoopHost host;
    ASSERT_TRUE(host.start());
    ASSERT_TRUE(cdevio.config_set(kBluetoothActive, true));
    for (const bool with_bus : {true, false}) {
        SCOPED_TRACE(with_bus ? "system bus without BlueZ" : "no system bus");
        std::unique_ptr<PrivateSystemBus> system_bus;
        if (with_bus) {
            system_bus = std::make_unique<PrivateSystemBus>();
            ASSERT_TRUE(system_bus->ok());
        } else {
            ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/devio-test-bus", 1);
        }
        testing::internal::CaptureStderr();
        {
            auto bus = BtBus::make(sim);
            auto monitor = bus->monitor();
            ASSERT_NE(monitor, nullptr);
            EXPECT_EQ(bus->devices().size(), 2u);
            const int node = sim.machine().hidrawOf("keys");
            auto device = monitor->device_paired_on_path(bus->paths(sim, {"keys"})[node].at(0));
            ASSERT_NE(device, nullptr);
            EXPECT_EQ(device->bustype(), 2);
            Recorder rec;
            EXPECT_TRUE(rec.follow(device));
            EXPECT_FALSE(device->connected());
            EXPECT_FALSE(monitor->lazy_start());
            EXPECT_EQ(devio::error_record().err, devio::BluetoothStartFailed);
        }
        const std::string log = testing::internal::GetCapturedStderr();
        std::size_t told = 0;
        for (auto at = log.find("-bt- Bluetooth is inactive"); at != std::string::npos;
             at = log.find("-bt- Bluetooth is inactive", at + 1)) {
            ++told;
        }
        EXPECT_EQ(told, 1u) << log;
        ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }
    host.stop();
}

}  // namespace
}  // namespace bttest
