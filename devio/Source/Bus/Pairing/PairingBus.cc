#include "Bus/Pairing/PairingBus.h"

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Base/FileReplace.h"
#include "Base/InstanceCount.h"
#include "Bus/IBluetoothDevice.h"
#include "Bus/Pairing/PairedCacheFile.h"
#include "Manager/IDeviceManager.h"

#define PAIRING_LOG(level, function, ...) \
    DEVIO_LOG_TAG("Devio", "PairingBus", level, function, __VA_ARGS__)

namespace devio {

namespace {
enum ConfigItem : unsigned {
    kBluetoothActive = 0,
    kBleActive = 1,
    kBleMonitor = 2,
    kUseBlevx = 3,
};

bool config_item(const std::shared_ptr<IDeviceManager>& manager, unsigned item) {
    bool value = false;
    if (manager && manager->config_get(item, &value)) return value;
    return item == kBleMonitor;
}

const char* interface_text(const std::shared_ptr<PairingDevice>& device) {
    if (device->bustype() != PairingDevice::kBusTypeBle) return "bluetooth";
    return device->gatt_data_path() ? "blevx" : "blevxp";
}
}  // namespace

PairingBus::PairingBus(std::shared_ptr<IHardwareBus> bus, std::weak_ptr<IDeviceManager> manager)
    : bus_(std::move(bus)), manager_(std::move(manager)) {
    const auto m = manager_.lock();
    bluetooth_active = config_item(m, kBluetoothActive);
    ble_active = config_item(m, kBleActive);
    ble_monitor = config_item(m, kBleMonitor);
    use_blevx = config_item(m, kUseBlevx);
    PAIRING_LOG(2, "PairingBus", "PairingBus bluetooth_active = %d", bluetooth_active);
    PAIRING_LOG(2, "PairingBus", "PairingBus ble_active = %d", ble_active);
    PAIRING_LOG(2, "PairingBus", "PairingBus ble_monitor = %d", ble_monitor);
    PAIRING_LOG(2, "PairingBus", "PairingBus use_blevx = %d", use_blevx);
    PAIRING_LOG(3, "PairingBus", "PairingBus::PairingBus Number of instances now: %d",
                InstanceCount<PairingBus>::added());
}

PairingBus::~PairingBus() {
    PAIRING_LOG(2, "~PairingBus", "PairingBus::~PairingBus");
    PAIRING_LOG(3, "~PairingBus", "PairingBus::~PairingBus Number of instances now: %d",
                InstanceCount<PairingBus>::removed());
}

void PairingBus::report_unreported_error(const char* where) {
    if (auto manager = manager_.lock()) manager->report_unreported_error(where);
}

bool PairingBus::on_subscribe(IHardwareBus::PlugUnplug* /*subscriber*/) {
    PAIRING_LOG(2, "on_subscribe", "PairingBus::on_subscribe enter");
    bool ok = Subscriber<IHardwareBus::PlugUnplug>::subscribe(bus_, DeliveryRunLoop);
    if (ble_monitor || use_blevx) {
        // Only when the bus below refused; `devices` follows them otherwise.
        try {
            for (const auto& secondary : bus_->secondary_busses()) {
                if (ok) continue;
                ok = Subscriber<IHardwareBus::PlugUnplug>::subscribe(secondary, DeliveryRunLoop);
            }
        } catch (...) {
            PAIRING_LOG(0, "on_subscribe", "PairingBus on_subscribe secondary_busses exception");
        }
    }
    if (ok) {
        for (const auto& monitor : bus_->bluetooth_busses()) {
            if (!Subscriber<IBluetoothBus::RadioArrivalRemovalExternal>::subscribe(
                    monitor, DeliveryDirect)) {
                ok = false;
                break;
            }
        }
    }
    PAIRING_LOG(2, "on_subscribe", "PairingBus::on_subscribe exit, ret=%d", ok);
    return ok;
}

std::vector<std::shared_ptr<IHardwareDevice>> PairingBus::devices() {
    std::lock_guard<std::recursive_mutex> lock(state_mutex);
    PAIRING_LOG(2, "devices", "PairingBus::devices enter");
    if (!Subscriber<IHardwareBus::PlugUnplug>::subscribe(bus_, DeliveryRunLoop)) {
        PAIRING_LOG(2, "devices", "PairingBus::devices exit (false, subscribe failed)");
        return {};
    }
    const bool with_secondary = ble_monitor || use_blevx;
    std::vector<std::shared_ptr<IHardwareSecondaryBus>> secondary;
    if (with_secondary) {
        try {
            secondary = bus_->secondary_busses();
            for (const auto& extra : secondary) {
                if (!Subscriber<IHardwareBus::PlugUnplug>::subscribe(extra, DeliveryRunLoop)) {
                    PAIRING_LOG(2, "devices", "PairingBus::devices exit (false, subscribe failed)");
                    return {};
                }
            }
        } catch (...) {
            PAIRING_LOG(0, "devices", "PairingBus devices secondary_busses exception");
        }
    }
    set_error(Success);
    auto found = bus_->devices();
    bool saved = found.empty();
    ErrorRecord first_error = error_record();
    for (const auto& extra : secondary) {
        auto more = extra->devices();
        if (more.empty() && !saved) {
            saved = true;
            first_error = error_record();
        }
        found.insert(found.end(), more.begin(), more.end());
    }

    bool dirty = false;
    for (const auto& hwdev : found) {
        const std::string path = hwdev->path();
        if (devices_.count(path) != 0) continue;
        const auto btdev = find_btdev(path);
        if (detect_and_attach_monitor(btdev, hwdev)) continue;
        const auto device = track(hwdev, btdev);
        dirty = true;
        attach_loose_monitor(device);
        announce(device);
    }
    std::vector<std::shared_ptr<IHardwareDevice>> result;
    for (const auto& [path, device] : devices_) {
        if (device->visible()) result.push_back(device);
    }
    if (dirty) write_data();
    PAIRING_LOG(2, "devices", "PairingBus::devices exit (success, returning %d devices)",
                static_cast<int>(result.size()));
    // The caller sees why nothing was found below.
    if (saved) set_error(first_error.err, first_error.str, first_error.sys);
    return result;
}

std::shared_ptr<IBluetoothDevice> PairingBus::find_btdev(const std::string& path) {
    for (const auto& monitor : bus_->bluetooth_busses()) {
        if (auto btdev = monitor->device_paired_on_path(path)) return btdev;
    }
    return nullptr;
}

std::shared_ptr<PairingDevice> PairingBus::track(const std::shared_ptr<IHardwareDevice>& hwdev,
                                                 const std::shared_ptr<IBluetoothDevice>& btdev) {
    const std::string path = hwdev->path();
    auto device = std::make_shared<PairingDevice>(
        shared_from_this(), hwdev, path, static_cast<unsigned>(hwdev->pid()), hwdev->name(), btdev,
        PAIRING_UNKNOWN, hwdev->bustype());
    devices_[path] = device;
    return device;
}

void PairingBus::announce(const std::shared_ptr<PairingDevice>& device) {
    if (device->visible()) produce_plug(device);
}

bool PairingBus::detect_and_attach_monitor(const std::shared_ptr<IBluetoothDevice>& btdev,
                                           const std::shared_ptr<IHardwareDevice>& hwdev) {
    const int pid = hwdev->pid();
    PAIRING_LOG(2, "detect_and_attach_monitor", "detect_and_attach_monitor enter, pid=%04x", pid);
    const bool is_ble = btdev && btdev->bustype() == PairingDevice::kBusTypeBle;
    const bool is_gatt = hwdev->bustype() == PairingDevice::kBusTypeGatt;
    // The data path is the GATT interface with use_blevx, else the HID one;
    // the other interface of the same device is the monitor.
    if (!is_ble || use_blevx == is_gatt) {
        PAIRING_LOG(2, "detect_and_attach_monitor",
                    "detect_and_attach_monitor not monitor, pid=%04x, isble=%d hwdevbus=%d", pid,
                    is_ble, hwdev->bustype());
        PAIRING_LOG(2, "detect_and_attach_monitor",
                    "detect_and_attach_monitor exit, returning false");
        return false;
    }
    PAIRING_LOG(2, "detect_and_attach_monitor",
                "detect_and_attach_monitor is monitor, pid=%04x, path=%s", pid,
                hwdev->path().c_str());
    if (!ble_monitor) {
        PAIRING_LOG(2, "detect_and_attach_monitor", "detect_and_attach_monitor monitor disabled");
        return true;
    }
    const std::string address = btdev->address();
    for (const auto& [path, device] : devices_) {
        const auto& other = device->btdev();
        if (!other) {
            PAIRING_LOG(2, "detect_and_attach_monitor",
                        "detect_and_attach_monitor didn't match %s vs not_bluetooth",
                        address.c_str());
            continue;
        }
        const std::string other_address = other->address();
        if (other_address == address) {
            device->add_monitor(hwdev);
            PAIRING_LOG(2, "detect_and_attach_monitor", "attaching monitor pid %04x = %s", pid,
                        address.c_str());
            return true;
        }
        PAIRING_LOG(2, "detect_and_attach_monitor",
                    "detect_and_attach_monitor didn't match %s vs %s", address.c_str(),
                    other_address.c_str());
    }
    PAIRING_LOG(2, "detect_and_attach_monitor", "remembering monitor pid %04x = %s", pid,
                address.c_str());
    loose_monitors[address] = hwdev;
    PAIRING_LOG(2, "detect_and_attach_monitor", "detect_and_attach_monitor exit, returning true");
    return true;
}

void PairingBus::attach_loose_monitor(const std::shared_ptr<PairingDevice>& device) {
    const auto& btdev = device->btdev();
    const bool is_ble = device->bustype() == PairingDevice::kBusTypeBle;
    PAIRING_LOG(2, "attach_loose_monitor", "attach_loose_monitor enter, pid=%04x, path=%s",
                device->pid(), is_ble ? device->path().c_str() : "not ble");
    if (!ble_monitor) {
        PAIRING_LOG(2, "attach_loose_monitor", "attach_loose_monitor exit, monitors disabled");
        return;
    }
    if (!btdev || btdev->bustype() != PairingDevice::kBusTypeBle) {
        PAIRING_LOG(2, "attach_loose_monitor", "attach_loose_monitor device not BLE");
        return;
    }
    const auto found = loose_monitors.find(btdev->address());
    if (found != loose_monitors.end()) {
        PAIRING_LOG(2, "attach_loose_monitor", "attaching loose monitor pid %04x",
                    found->second->pid());
        device->add_monitor(found->second);
        loose_monitors.erase(found);
        return;
    }
    PAIRING_LOG(2, "attach_loose_monitor", "attach_loose_monitor no matches");
    for (const auto& [address, monitor] : loose_monitors) {
        PAIRING_LOG(2, "attach_loose_monitor", "attach_loose_monitor loose %04x = %s",
                    monitor->pid(), address.c_str());
    }
}

void PairingBus::detach_monitor(const std::shared_ptr<PairingDevice>& device) {
    const auto& btdev = device->btdev();
    if (!btdev || !device->has_monitor()) return;
    if (auto monitor = device->remove_monitor(nullptr)) {
        PAIRING_LOG(2, "detach_monitor", "detached monitor pid %04x and remembered it",
                    monitor->pid());
        loose_monitors[btdev->address()] = monitor;
    }
}

void PairingBus::destroy_monitor(const std::shared_ptr<IHardwareDevice>& hwdev) {
    if (!ble_monitor) return;
    if (!hwdev) {
        PAIRING_LOG(2, "destroy_monitor", "PairingBus::destroy_monitor hwdev = nullptr");
        return;
    }
    for (auto it = loose_monitors.begin(); it != loose_monitors.end();) {
        if (it->second == hwdev) {
            PAIRING_LOG(2, "destroy_monitor", "forgetting monitor pid %04x", hwdev->pid());
            it = loose_monitors.erase(it);
        } else {
            ++it;
        }
    }
    for (const auto& [path, device] : devices_) {
        if (auto monitor = device->remove_monitor(hwdev)) {
            PAIRING_LOG(2, "destroy_monitor",
                        "PairingBus::destroy_monitor destroyed monitor pid %04x path %s",
                        monitor->pid(), monitor->path().c_str());
            PAIRING_LOG(2, "destroy_monitor",
                        "PairingBus::destroy_monitor   it was attached to pid %04x path %s",
                        device->pid(), path.c_str());
        }
    }
}

void PairingBus::forget(const std::string& path) {
    const auto found = devices_.find(path);
    if (found == devices_.end()) return;
    detach_monitor(found->second);
    devices_.erase(found);
}

void PairingBus::onPlug(const std::shared_ptr<IHardwareDevice>& hwdev) {
    std::lock_guard<std::recursive_mutex> lock(state_mutex);
    PAIRING_LOG(2, "onPlug", "PairingBus::onPlug enter (pid = 0x%x)", hwdev->pid());
    if (!hwdev->open()) {
        PAIRING_LOG(2, "onPlug", "PairingBus::onPlug exit, ignoring device it could not open");
        return;
    }
    const std::string path = hwdev->path();
    const auto known = devices_.find(path);
    if (known == devices_.end()) {
        const auto btdev = find_btdev(path);
        // A monitor changes nothing that the cache holds.
        if (detect_and_attach_monitor(btdev, hwdev)) return;
        const auto device = track(hwdev, btdev);
        PAIRING_LOG(2, "onPlug", "PairingBus::onPlug tracking %s", path.c_str());
        attach_loose_monitor(device);
        for (const auto& entry : devices_) {
            PAIRING_LOG(2, "onPlug", "PairingBus::onPlug device list %s", entry.first.c_str());
        }
        announce(device);
    } else if (known->second->btdev()) {
        // Switched on again: the same device, now with its data path.
        known->second->data_connect(hwdev);
    }
    write_data();
    PAIRING_LOG(2, "onPlug", "PairingBus::onPlug exit");
}

void PairingBus::onUnplug(const std::shared_ptr<IHardwareDevice>& hwdev) {
    std::lock_guard<std::recursive_mutex> lock(state_mutex);
    const std::string path = hwdev->path();
    PAIRING_LOG(2, "onUnplug", "PairingBus::onUnplug enter, pid = 0x%x, path=%s", hwdev->pid(),
                path.c_str());
    const auto found = devices_.find(path);
    if (found == devices_.end()) {
        PAIRING_LOG(2, "onUnplug", "PairingBus::onUnplug device not found: %s", path.c_str());
        for (const auto& entry : devices_) {
            PAIRING_LOG(2, "onUnplug", "PairingBus::onUnplug device list %s", entry.first.c_str());
        }
    } else {
        const auto device = found->second;
        if (!device->btdev()) {
            PAIRING_LOG(2, "onUnplug", "PairingBus::onUnplug producing unPlug event");
            produce_unplug(device);
            devices_.erase(found);
        } else if (device->visible()) {
            // Switched off, or out of range: still paired, so still there.
            PAIRING_LOG(2, "onUnplug",
                        "PairingBus::onUnplug still paired, so disconnecting instead");
            device->data_disconnect();
        } else if (!device->radio().empty()) {
            PAIRING_LOG(2, "onUnplug", "device is hidden");
            device->data_disconnect();
            produce_unplug(device);
        } else {
            PAIRING_LOG(2, "onUnplug", "device is unpaired");
            detach_monitor(device);
            devices_.erase(found);
            produce_unplug(device);
        }
    }
    destroy_monitor(hwdev);
    write_data();
    PAIRING_LOG(2, "onUnplug", "PairingBus::onUnplug exit (pid = 0x%x)", hwdev->pid());
}

void PairingBus::onPowerChange(bool standBy) {
    PAIRING_LOG(2, "onPowerChange", "PairingBus::onPowerChange(standBy=%d)", standBy);
    Producer<IHardwareBus::PlugUnplug>::produce(
        [standBy](IHardwareBus::PlugUnplug* s) { s->onPowerChange(standBy); },
        event_names::PairingBusPlugUnplug.onPowerChange);
}

void PairingBus::process_unpair(const std::shared_ptr<PairingDevice>& device) {
    std::lock_guard<std::recursive_mutex> lock(state_mutex);
    PAIRING_LOG(2, "process_unpair", "PairingBus::process_unpair enter");
    if (!device->btdev()) {
        PAIRING_LOG(0, "process_unpair",
                    "PairingBus::process_unpair exit, device is not a bt device");
        return;
    }
    if (!device->visible()) {
        PAIRING_LOG(2, "process_unpair", "PairingBus::process_unpair no longer visible");
        produce_unplug(device);
        if (!device->radio().empty()) {
            PAIRING_LOG(2, "process_unpair", "PairingBus::process_unpair is being hidden");
        } else {
            PAIRING_LOG(2, "process_unpair", "PairingBus::process_unpair lost all pairings");
            forget(device->path());
        }
    }
    write_data();
    PAIRING_LOG(2, "process_unpair", "PairingBus::process_unpair exit");
}

void PairingBus::onRadioArrival(const std::string& radio) {
    std::lock_guard<std::recursive_mutex> lock(state_mutex);
    PAIRING_LOG(2, "onRadioArrival", "PairingBus::onRadioArrival radio %s", radio.c_str());
    std::vector<std::string> lost;
    for (const auto& [path, device] : devices_) {
        if (!device->btdev()) {
            PAIRING_LOG(2, "onRadioArrival", "onRadioArrival device has no btdev: %s",
                        path.c_str());
        } else if (device->pairing_lost()) {
            PAIRING_LOG(2, "onRadioArrival",
                        "PairingBus::onRadioArrival device lost pairing, so removing it");
            lost.push_back(path);
        } else if (device->radio() == radio) {
            produce_plug(device);
        }
    }
    for (const auto& path : lost) {
        forget(path);
        write_data();
    }
}

void PairingBus::onRadioRemoval(const std::string& radio) {
    std::lock_guard<std::recursive_mutex> lock(state_mutex);
    PAIRING_LOG(2, "onRadioRemoval", "PairingBus::onRadioRemoval radio %s", radio.c_str());
    // The entries stay: the devices come back with their radio.
    for (const auto& [path, device] : devices_) {
        if (!device->btdev()) {
            PAIRING_LOG(2, "onRadioRemoval", "onRadioRemoval device has no btdev: %s",
                        path.c_str());
            continue;
        }
        PAIRING_LOG(2, "onRadioRemoval", "onRadioRemoval removing pairings from device: %s",
                    path.c_str());
        if (device->radio() == radio && !device->visible()) produce_unplug(device);
    }
}

void PairingBus::refresh() {
    std::lock_guard<std::recursive_mutex> lock(state_mutex);
    PAIRING_LOG(2, "refresh", "PairingBus::refresh enter");
    std::vector<std::string> unpaired;
    for (const auto& [path, device] : devices_) {
        if (!device->btdev() || find_btdev(path)) continue;
        PAIRING_LOG(2, "refresh", "PairingBus::refresh - device was unpaired: %s", path.c_str());
        unpaired.push_back(path);
        produce_unplug(device);
    }
    for (const auto& path : unpaired) forget(path);
    if (!unpaired.empty()) write_data();
    PAIRING_LOG(2, "refresh", "PairingBus::refresh exit");
}

void PairingBus::persistent_data_directory(const std::string& dir) {
    std::lock_guard<std::recursive_mutex> lock(state_mutex);
    PAIRING_LOG(2, "persistent_data_directory",
                "PairingBus::persistent_data_directory enter dir=%s", dir.c_str());
    if (dir.empty()) {
        PAIRING_LOG(2, "persistent_data_directory", "data cache dir is empty");
        cache_file.clear();
        return;
    }
    cache_file = dir + kCacheFileName;
    std::vector<char> text;
    if (read_file_text(cache_file, text)) {
        // A damaged file throws from here, before anything was taken from
        // it; the next write replaces it.
        for (const auto& e : paired_cache::parse(text.data())) {
            PAIRING_LOG(3, "persistent_data_directory", "xml read zpath=%s", e.path.c_str());
            PAIRING_LOG(3, "persistent_data_directory", "xml read  zpid=%s", e.pid.c_str());
            PAIRING_LOG(3, "persistent_data_directory", "xml read   zname=%s", e.name.c_str());
            PAIRING_LOG(3, "persistent_data_directory", "xml read    zradio=%s", e.radio.c_str());
            PAIRING_LOG(3, "persistent_data_directory", "xml read     zinterface=%s",
                        e.interface.c_str());
            if (!e.complete) continue;
            const int stored_bustype = e.interface == "blevx" ? PairingDevice::kBusTypeGatt : 0;
            const auto known = devices_.find(e.path);
            if (known != devices_.end()) {
                PAIRING_LOG(2, "persistent_data_directory",
                            "Already a device present that matches %s", e.path.c_str());
                known->second->set_name_if_empty(e.name);
                continue;
            }
            const auto btdev = find_btdev(e.path);
            if (!btdev) continue;
            // A change of the setting drops the cached BLE entries.
            if (btdev->bustype() == PairingDevice::kBusTypeBle &&
                use_blevx != (stored_bustype == PairingDevice::kBusTypeGatt))
                continue;
            auto device = std::make_shared<PairingDevice>(shared_from_this(), nullptr, e.path,
                                                          paired_cache::pid_value(e.pid), e.name,
                                                          btdev, e.radio, stored_bustype);
            if (device->pairing_lost()) {
                PAIRING_LOG(2, "persistent_data_directory",
                            "PairingBus::persistent_data_directory device is unpaired: %s",
                            e.path.c_str());
                continue;
            }
            PAIRING_LOG(2, "persistent_data_directory",
                        "PairingBus::persistent_data_directory device is paired: %s",
                        e.path.c_str());
            PAIRING_LOG(2, "persistent_data_directory",
                        "PairingBus::persistent_data_directory device is paired to: %s",
                        e.radio.c_str());
            devices_[e.path] = device;
            announce(device);
        }
    }
    write_data();
    PAIRING_LOG(2, "persistent_data_directory", "PairingBus::persistent_data_directory exit");
}

void PairingBus::write_data() {
    std::lock_guard<std::recursive_mutex> lock(state_mutex);
    PAIRING_LOG(2, "write_data", "writing data cache to file %s", cache_file.c_str());
    if (cache_file.empty()) {
        PAIRING_LOG(2, "write_data", "data cache path is empty");
        return;
    }
    std::vector<paired_cache::Entry> entries;
    for (const auto& [path, device] : devices_) {
        if (!device->btdev()) continue;
        const std::string radio = device->radio();
        if (radio.empty()) continue;
        paired_cache::Entry e{path,
                              paired_cache::pid_text(static_cast<unsigned>(device->pid())),
                              device->name(),
                              radio,
                              interface_text(device),
                              true};
        PAIRING_LOG(3, "write_data", "xml write zpath=%s", e.path.c_str());
        PAIRING_LOG(3, "write_data", "xml write  zpid=%s", e.pid.c_str());
        PAIRING_LOG(3, "write_data", "xml write   zname=%s", e.name.c_str());
        PAIRING_LOG(3, "write_data", "xml write    zradio=%s", e.radio.c_str());
        PAIRING_LOG(3, "write_data", "xml write     zinterface=%s", e.interface.c_str());
        entries.push_back(std::move(e));
    }
    // A failed write leaves the old file; the next change writes again.
    if (!replace_file(cache_file, paired_cache::print(entries))) return;
    PAIRING_LOG(2, "write_data", "wrote paired cache to file %s", cache_file.c_str());
}

void PairingBus::produce_plug(const std::shared_ptr<IHardwareDevice>& device) {
    Producer<IHardwareBus::PlugUnplug>::produce(
        [device](IHardwareBus::PlugUnplug* s) { s->onPlug(device); },
        event_names::PairingBusPlugUnplug.onPlug);
}

void PairingBus::produce_unplug(const std::shared_ptr<IHardwareDevice>& device) {
    Producer<IHardwareBus::PlugUnplug>::produce(
        [device](IHardwareBus::PlugUnplug* s) { s->onUnplug(device); },
        event_names::PairingBusPlugUnplug.onUnplug);
}

}  // namespace devio
