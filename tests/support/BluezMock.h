#pragma once

// Test support: BlueZ played by python3-dbusmock's bluez5 template on a
// private dbus-daemon, which stands in for the system bus of this process
// (DBUS_SYSTEM_BUS_ADDRESS) for as long as the object lives. The machine's
// own system bus is never touched.

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>
#include <vector>

namespace bttest {

class PrivateSystemBus {
public:
    // Starts the daemon and points this process's system bus at it.
    PrivateSystemBus();
    ~PrivateSystemBus();
    const std::string& address() const { return address_; }
    bool ok() const { return !address_.empty(); }

private:
    pid_t daemon_ = -1;
    std::string address_;
};

class BluezMock {
public:
    // Starts the mock on `bus` and waits until org.bluez answers; ok() says
    // whether it did, why() why not.
    explicit BluezMock(const PrivateSystemBus& bus);
    ~BluezMock();
    bool ok() const { return ok_; }
    const std::string& why() const { return why_; }
    // Ends the mock, as BlueZ ends when it stops or crashes.
    void stop();

    // Each returns the error text of a failed call, empty on success.
    std::string addAdapter(const std::string& name);
    std::string removeAdapter(const std::string& name);
    std::string addDevice(const std::string& adapter, const std::string& address,
                          const std::string& name);
    std::string pairDevice(const std::string& adapter, const std::string& address);
    std::string connectDevice(const std::string& adapter, const std::string& address);
    std::string disconnectDevice(const std::string& adapter, const std::string& address);
    // Forgets a device as BlueZ does on unpairing: the object goes.
    std::string removeDevice(const std::string& adapter, const std::string& address);
    // Makes a device a Low Energy one: a random address and the HID service
    // over GATT.
    std::string makeLowEnergy(const std::string& adapter, const std::string& address);
    std::string setPaired(const std::string& adapter, const std::string& address, bool paired);

    static std::string devicePath(const std::string& adapter, const std::string& address);

    // GATT: loads the template that gives devices the vendor service
    // (tools/bluetooth-machine/gatt.py), then gives one device its GATT
    // objects, backed by the simulated node at `node` (empty: none).
    // `characteristics` lists "fixed" and "variable" in the order found.
    std::string loadGatt(const std::string& template_path);
    std::string addGattDevice(const std::string& adapter, const std::string& address,
                              const std::string& node, const std::string& characteristics,
                              bool descriptor, std::uint16_t pid);
    std::string removeGattDevice(const std::string& adapter, const std::string& address);
    // A notification of `characteristic` (an object path) with `value`.
    std::string gattNotify(const std::string& characteristic,
                           const std::vector<std::uint8_t>& value);
    // What the device received: characteristic, value and write type.
    struct GattWrite {
        std::string characteristic;
        std::vector<std::uint8_t> value;
        std::string type;
    };
    std::vector<GattWrite> gattWrites(const std::string& adapter, const std::string& address);

private:
    std::string call(const char* path, const char* interface, const char* member, const char* types,
                     ...);

    pid_t mock_ = -1;
    sd_bus* bus_ = nullptr;
    bool ok_ = false;
    std::string why_;
};

// HID_UNIQ of a simulated node, upper-cased as BlueZ writes addresses.
std::string nodeAddress(const std::string& sysfs_root, int hidraw);

}  // namespace bttest
