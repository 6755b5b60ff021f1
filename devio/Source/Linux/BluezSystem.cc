// The Bluetooth side of the platform seam over BlueZ: queries on a
// connection of their own to the system bus, each bounded in time. The
// events come through the device-change window (BluezWatch.cc).

#include <cerrno>
#include <cstring>
#include <mutex>

#include "Base/DevioException.h"
#include "Linux/BluezObjects.h"
#include "Linux/LinuxSystem.h"
#include "Linux/SysfsHidraw.h"
#include "Windows/BluetoothSystem.h"

namespace devio {

namespace {

// Any thread may call. `mutex_` guards the connection and is held across
// each call to BlueZ, which is bounded by kCallTimeoutUsec; calls are
// therefore served one at a time.
class BluezSystem : public IBluetoothSystem {
public:
    explicit BluezSystem(std::shared_ptr<LinuxSystem> system) : system_(std::move(system)) {}
    ~BluezSystem() override {
        if (bus_) sd_bus_flush_close_unref(bus_);
    }

    bool available(std::string& why) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!connect(why)) return false;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        int owned = 0;
        const int r = sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                         "org.freedesktop.DBus", "NameHasOwner", &error, &reply,
                                         "s", bluez::kService);
        if (r >= 0) sd_bus_message_read(reply, "b", &owned);
        sd_bus_message_unref(reply);
        sd_bus_error_free(&error);
        if (r < 0) {
            why = std::string("the system bus does not answer: ") + std::strerror(-r);
            drop();
            return false;
        }
        if (!owned) why = "BlueZ (org.bluez) is not on the system bus";
        return owned != 0;
    }

    std::vector<std::string> radios(std::uint32_t& sys_error) override {
        bluez::Snapshot now;
        const int r = snapshot(now);
        if (r < 0) {
            sys_error = static_cast<std::uint32_t>(-r);
            return {};
        }
        return {now.adapters.begin(), now.adapters.end()};
    }

    std::uint32_t device_info(const std::string& radio, std::uint64_t address,
                              BluetoothDeviceInfo& out) override {
        bluez::Snapshot now;
        const int r = snapshot(now);
        if (r < 0) return static_cast<std::uint32_t>(-r);
        for (const auto& [path, device] : now.devices) {
            if (device.address != address || device.adapter != radio) continue;
            out.connected = device.connected;
            out.remembered = device.paired;
            out.class_of_device = device.class_of_device;
            out.name = device.name;
            return 0;
        }
        return ENOENT;
    }

    bool address_of_path(const std::string& path, std::uint64_t& address, int& bustype) override {
        // A GATT interface is named by its BlueZ device object; only Low
        // Energy devices have one.
        if (path.rfind("/org/bluez/", 0) == 0) {
            const std::size_t at = path.rfind("/dev_");
            if (at == std::string::npos) return false;
            std::string text = path.substr(at + 5);
            for (char& c : text) c = c == '_' ? ':' : c;
            if (!linux_hid::parseBluetoothAddress(text, address)) return false;
            bustype = 3;
            return true;
        }
        bool low_energy = false;
        if (!system_->bluetoothIdentity(path, address, low_energy)) return false;
        bustype = low_energy ? 3 : 2;
        return true;
    }

    int bearer(std::uint64_t address) override {
        bluez::Snapshot now;
        if (snapshot(now) < 0) return 0;
        for (const auto& [path, device] : now.devices) {
            if (device.address == address) return bluez::bearerOf(device);
        }
        return 0;
    }

    std::string radio_of(std::uint64_t address) override {
        bluez::Snapshot now;
        if (snapshot(now) < 0) return {};
        for (const auto& [path, device] : now.devices) {
            if (device.address == address && device.paired) return device.adapter;
        }
        return {};
    }

private:
    bool connect(std::string& why) {
        if (bus_) return true;
        const int r = bluez::openSystemBus(&bus_);
        if (r < 0) {
            bus_ = nullptr;
            why = std::string("no system bus: ") + std::strerror(-r);
            return false;
        }
        return true;
    }

    // A connection that failed is opened anew at the next call: the system
    // bus may have restarted.
    void drop() {
        if (bus_) sd_bus_flush_close_unref(bus_);
        bus_ = nullptr;
    }

    int snapshot(bluez::Snapshot& out) {
        std::lock_guard<std::mutex> lock(mutex_);
        std::string why;
        if (!connect(why)) return -ENOTCONN;
        const int r = bluez::readSnapshot(bus_, out, why);
        if (r == -ECONNRESET || r == -ENOTCONN) drop();
        return r;
    }

    std::shared_ptr<LinuxSystem> system_;
    std::mutex mutex_;
    sd_bus* bus_ = nullptr;  // guarded by mutex_
};

}  // namespace

std::shared_ptr<IBluetoothSystem> makePlatformBluetooth(
    const std::shared_ptr<IWin32System>& system) {
    auto linux_system = std::dynamic_pointer_cast<LinuxSystem>(system);
    if (!linux_system)
        throw DevioException(PlatformLibraryFailed, "Bluetooth needs the hidraw binding");
    return std::make_shared<BluezSystem>(std::move(linux_system));
}

}  // namespace devio
