#pragma once

// Test support: the Bluetooth side of a simulated machine. A story drives
// pairing, connection and radios through `RadioWorld`, and builds its bus
// stack on the world's `platform`; `make_world` picks the world. In
// `FakeRadio` the monitor is one of the test's own; in the BlueZ world
// (BluezRadio.h) it is the platform bus's real monitor over BlueZ played by
// a mock, and the stories stay as they are.

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "Base/Producer.h"
#include "Bus/IBluetoothBus.h"
#include "Bus/IBluetoothDevice.h"
#include "Bus/IHardwareBus.h"
#include "Bus/IHardwareDevice.h"
#include "Manager/IDeviceManager.h"
#include "SimHost.h"

namespace pairtest {

// What a story does to the radio side. `key` is a text that every interface
// path of the device contains (part of its address as the kernel writes it).
class RadioWorld {
public:
    virtual ~RadioWorld() = default;
    // Empty when the world is ready, else why it is not.
    virtual std::string trouble() { return {}; }
    // The machine's platform bus with its Bluetooth monitor and, when given,
    // a GATT transport; `manager` is the one whose configuration it reads.
    virtual std::shared_ptr<devio::IHardwareBus> platform(
        simtest::SimMachine& sim, std::weak_ptr<devio::IDeviceManager> manager,
        std::shared_ptr<devio::IHardwareSecondaryBus> gatt = nullptr) = 0;
    virtual void add_radio(const std::string& radio) = 0;
    virtual void remove_radio(const std::string& radio) = 0;
    // Pairs the device to `radio`, as classic Bluetooth (2) or Low Energy (3),
    // under the name the radio knows it by.
    virtual void pair(const std::string& key, int bustype, const std::string& radio,
                      const std::string& name) = 0;
    virtual void connect(const std::string& key) = 0;
    virtual void disconnect(const std::string& key) = 0;
    // The radio says that the device lost its pairing with `radio`.
    virtual void unpair(const std::string& key, const std::string& radio) = 0;
    // The path of a paired device's vendor GATT interface, as the
    // platform's GATT transport names it.
    virtual std::string gatt_path(const std::string& key) = 0;
};

enum class World { Fake, Bluez };
std::string world_name(World world);
inline void PrintTo(World world, std::ostream* out) {
    *out << world_name(world);
}

// The radio the stories run over.
std::shared_ptr<RadioWorld> make_world(World world);

class FakeRadio;

// One paired device as the fake radio tells it.
class FakeBtDevice : public devio::IBluetoothDevice,
                     public devio::Producer<devio::IBluetoothDevice::BtConnect>,
                     public devio::Producer<devio::IBluetoothDevice::BtFastConnect>,
                     public devio::Producer<devio::IBluetoothDevice::BtUnpair> {
public:
    FakeBtDevice(std::weak_ptr<FakeRadio> radio, std::string address, int bustype,
                 std::string paired_to, std::string name);

    bool connected() override { return connected_; }
    std::string connected_radio(const std::string& path, int bustype) override;
    bool verify_pairing(std::string& radio) override;
    bool radio_present(const std::string& radio) override;
    int bustype() override { return bustype_; }
    std::string name() override { return name_; }
    bool verify_connection_following_timeout() override { return true; }
    std::shared_ptr<devio::IBluetoothBus> bus() override;
    std::string address() override { return address_; }

    void connect();
    void disconnect();
    // True when the device was paired to `radio`, and no longer is.
    bool unpair(const std::string& radio);

private:
    std::weak_ptr<FakeRadio> radio_;
    const std::string address_;
    const int bustype_;
    const std::string name_;
    std::mutex mutex_;
    std::string paired_to_;  // guarded by mutex_
    std::atomic<bool> connected_{false};
};

class FakeRadio : public RadioWorld,
                  public devio::IBluetoothBus,
                  public devio::Producer<devio::IBluetoothBus::RadioArrivalRemovalExternal>,
                  public std::enable_shared_from_this<FakeRadio> {
public:
    std::shared_ptr<devio::IBluetoothDevice> device_paired_on_path(
        const std::string& path) override;

    std::shared_ptr<devio::IHardwareBus> platform(
        simtest::SimMachine& sim, std::weak_ptr<devio::IDeviceManager> manager,
        std::shared_ptr<devio::IHardwareSecondaryBus> gatt) override;
    void add_radio(const std::string& radio) override;
    void remove_radio(const std::string& radio) override;
    void pair(const std::string& key, int bustype, const std::string& radio,
              const std::string& name) override;
    void connect(const std::string& key) override { find(key)->connect(); }
    void disconnect(const std::string& key) override { find(key)->disconnect(); }
    void unpair(const std::string& key, const std::string& radio) override;
    std::string gatt_path(const std::string& key) override { return "gatt-" + key + ":01"; }

    bool has_radio(const std::string& radio);

private:
    std::shared_ptr<FakeBtDevice> find(const std::string& key);

    std::mutex mutex_;
    std::set<std::string> radios_;                                 // guarded by mutex_
    std::map<std::string, std::shared_ptr<FakeBtDevice>> paired_;  // by key, guarded by mutex_
};

// A vendor GATT interface: the bus type of the transport, writes recorded,
// reads put in by the test. The simulated machine has HID nodes only.
class FakeGattDevice : public devio::IHardwareDevice,
                       public devio::Producer<devio::IHardwareDevice::Read>,
                       public devio::Producer<devio::IHardwareDevice::Write>,
                       public devio::Producer<devio::IHardwareDevice::Connect> {
public:
    FakeGattDevice(std::string path, int pid) : path_(std::move(path)), pid_(pid) {}
    bool connected() override { return true; }
    bool open() override { return true; }
    void close() override {}
    bool write(std::vector<devio::Byte> report, bool blocking) override;
    std::shared_ptr<devio::IHardwareBus> bus() override { return nullptr; }
    std::string path() override { return path_; }
    int pid() override { return pid_; }
    std::string name() override { return "Sim GATT"; }
    int bustype() override { return 4; }

    void read(const std::vector<devio::Byte>& report);
    std::size_t writes();

private:
    const std::string path_;
    const int pid_;
    std::mutex mutex_;
    std::size_t writes_ = 0;  // guarded by mutex_
};

// The platform's vendor GATT transport as a secondary bus.
class FakeGattBus : public devio::IHardwareSecondaryBus,
                    public devio::Producer<devio::IHardwareBus::PlugUnplug> {
public:
    std::vector<std::shared_ptr<devio::IHardwareDevice>> devices() override;
    void plug(const std::shared_ptr<FakeGattDevice>& device);

private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<devio::IHardwareDevice>> present_;  // guarded by mutex_
};

// The simulated machine's platform bus with Bluetooth monitors (and, when
// given, a GATT transport), as the platform bus of a machine with a
// Bluetooth stack reports them.
class BluetoothSimBus : public simtest::SimBus {
public:
    BluetoothSimBus(simtest::SimMachine& sim, std::shared_ptr<devio::IBluetoothBus> monitor,
                    std::shared_ptr<devio::IHardwareSecondaryBus> gatt = nullptr);
    std::vector<std::shared_ptr<devio::IBluetoothBus>> bluetooth_busses() override {
        return {monitor_};
    }
    std::vector<std::shared_ptr<devio::IHardwareSecondaryBus>> secondary_busses() override;

private:
    std::shared_ptr<devio::IBluetoothBus> monitor_;
    std::shared_ptr<devio::IHardwareSecondaryBus> gatt_;
};

}  // namespace pairtest
