#include "BluezRadio.h"

#include <systemd/sd-bus.h>

#include <cctype>
#include <stdexcept>

#include "Windows/Win32Bus.h"

namespace pairtest {

namespace {

// "hci0" of "/org/bluez/hci0".
std::string adapter_of(const std::string& radio) {
    return radio.substr(radio.rfind('/') + 1);
}

void check(const std::string& why) {
    if (!why.empty()) throw std::runtime_error("BlueZ mock: " + why);
}

// The platform bus as the manager makes it: its monitor comes with it and
// reads the manager's configuration; its machine is the simulated one.
class BluezSimBus : public devio::Win32Bus {
public:
    static std::shared_ptr<BluezSimBus> make(simtest::SimMachine& sim,
                                             std::weak_ptr<devio::IDeviceManager> manager,
                                             std::shared_ptr<devio::IHardwareSecondaryBus> gatt) {
        auto bus =
            std::shared_ptr<BluezSimBus>(new BluezSimBus(sim, std::move(manager), std::move(gatt)));
        bus->init();
        return bus;
    }
    std::shared_ptr<devio::IWin32System> makeWin32System() override {
        return std::make_shared<devio::LinuxSystem>(sys_, dev_);
    }
    std::vector<std::shared_ptr<devio::IHardwareSecondaryBus>> secondary_busses() override {
        if (gatt_) return {gatt_};
        return Win32Bus::secondary_busses();
    }

private:
    BluezSimBus(simtest::SimMachine& sim, std::weak_ptr<devio::IDeviceManager> manager,
                std::shared_ptr<devio::IHardwareSecondaryBus> gatt)
        : Win32Bus(std::move(manager)),
          sys_(sim.machine().sysfsRoot()),
          dev_(sim.machine().devRoot()),
          gatt_(std::move(gatt)) {}
    const std::string sys_, dev_;
    const std::shared_ptr<devio::IHardwareSecondaryBus> gatt_;
};

}  // namespace

std::shared_ptr<devio::IHardwareBus> BluezRadio::platform(
    simtest::SimMachine& sim, std::weak_ptr<devio::IDeviceManager> manager,
    std::shared_ptr<devio::IHardwareSecondaryBus> gatt) {
    return BluezSimBus::make(sim, std::move(manager), std::move(gatt));
}

// A controller that comes back brings its paired devices from BlueZ's
// store, and the ones that were connected connect again, as a device that
// is switched on does when its host's radio returns.
void BluezRadio::add_radio(const std::string& radio) {
    check(mock_.addAdapter(adapter_of(radio)));
    radios_.insert(radio);
    for (auto& [key, device] : paired_) {
        if (device.radio != radio) continue;
        know(device, radio);
        if (device.connected) check(mock_.connectDevice(adapter_of(radio), device.address));
    }
}

// A controller that goes takes its device objects with it.
void BluezRadio::remove_radio(const std::string& radio) {
    mock_call("RemoveAdapterWithDevices", adapter_of(radio));
    radios_.erase(radio);
}

void BluezRadio::pair(const std::string& key, int bustype, const std::string& radio,
                      const std::string& name) {
    std::string address = key + ":01";
    for (char& c : address) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    Paired device{address, bustype, radio, name};
    know(device, radio);
    paired_[key] = device;
}

void BluezRadio::know(const Paired& device, const std::string& radio) {
    const std::string adapter = adapter_of(radio);
    check(mock_.addDevice(adapter, device.address, device.name));
    check(mock_.pairDevice(adapter, device.address));
    if (device.bustype == 3) check(mock_.makeLowEnergy(adapter, device.address));
}

void BluezRadio::connect(const std::string& key) {
    Paired& device = find(key);
    check(mock_.connectDevice(adapter_of(device.radio), device.address));
    device.connected = true;
}

void BluezRadio::disconnect(const std::string& key) {
    Paired& device = find(key);
    check(mock_.disconnectDevice(adapter_of(device.radio), device.address));
    device.connected = false;
}

// BlueZ forgets a device with its pairing. A radio that the device is not
// paired to can only say so when it knew the device: it learns it, then
// forgets it.
void BluezRadio::unpair(const std::string& key, const std::string& radio) {
    Paired& device = find(key);
    const std::string adapter = adapter_of(radio);
    if (device.radio != radio) {
        if (radios_.count(radio) == 0) return;
        know(device, radio);
        check(mock_.removeDevice(adapter, device.address));
        return;
    }
    check(mock_.removeDevice(adapter, device.address));
    paired_.erase(key);
}

std::string BluezRadio::gatt_path(const std::string& key) {
    const Paired& device = find(key);
    return bttest::BluezMock::devicePath(adapter_of(device.radio), device.address);
}

BluezRadio::Paired& BluezRadio::find(const std::string& key) {
    const auto found = paired_.find(key);
    if (found == paired_.end()) throw std::logic_error("not paired: " + key);
    return found->second;
}

void BluezRadio::mock_call(const char* member, const std::string& adapter) {
    sd_bus* bus = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    std::string why;
    if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, system_bus_.address().c_str()) < 0 ||
        sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0) {
        why = "cannot reach the private bus";
    } else if (sd_bus_call_method(bus, "org.bluez", "/", "org.bluez.Mock", member, &error, nullptr,
                                  "s", adapter.c_str()) < 0) {
        why = std::string(member) + ": " + (error.message ? error.message : "failed");
    }
    sd_bus_error_free(&error);
    if (bus) sd_bus_flush_close_unref(bus);
    check(why);
}

}  // namespace pairtest
