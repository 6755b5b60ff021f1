#include "Windows/GattBus.h"

#include "Base/ClassLog.h"
#include "Base/DevioException.h"
#include "Base/ErrorRecord.h"
#include "Windows/GattDevice.h"
#include "Windows/Win32Bus.h"

namespace devio {

GattBus::GattBus(std::weak_ptr<Win32Bus> bus) : bus_(std::move(bus)) {}

GattBus::~GattBus() {
    if (notification_ == 0) return;
    if (auto bus = bus_.lock()) bus->unregisterInterfaceNotification(notification_);
}

std::shared_ptr<IGattSystem> GattBus::makeGattSystem(const std::shared_ptr<IWin32System>& system) {
    return makePlatformGatt(system);
}

std::shared_ptr<IGattSystem> GattBus::gatt() {
    std::lock_guard<std::mutex> lock(objects_mutex_);
    return gatt_;
}

std::shared_ptr<IWin32System> GattBus::system() {
    std::lock_guard<std::mutex> lock(objects_mutex_);
    return system_;
}

bool GattBus::lazyStart() {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    DEVIO_LOG("GattBus", 3, "lazyStart", "GattBus::lazyStart enter");
    if (started_) {
        DEVIO_LOG("GattBus", 3, "lazyStart", "GattBus::lazyStart exit, already started");
        return true;
    }
    DEVIO_LOG("GattBus", 3, "lazyStart", "GattBus::lazyStart performing startup");
    auto bus = bus_.lock();
    if (!bus) {
        set_error(ShuttingDown);
        return false;
    }
    std::shared_ptr<IWin32System> system;
    try {
        bus->lazyStart(&system);
    } catch (const DevioException& e) {
        e.record();
        DEVIO_LOG("GattBus", 1, "lazyStart", "Win32Bus::lazyStart exception");
        return false;
    }
    auto gatt = makeGattSystem(system);
    {
        std::lock_guard<std::mutex> objects(objects_mutex_);
        system_ = system;
        gatt_ = gatt;
    }
    // Without a watch the bus still lists what is there; arrivals and
    // removals are then seen only through the HID side and the pairing
    // filter's refresh.
    notification_ = bus->registerInterfaceNotification(kVxpGattClass);
    if (notification_ == 0) {
        DEVIO_LOG("GattBus", 1, "lazyStart",
                  "GattBus::lazyStart could not register for GATT interface changes, err=%d",
                  static_cast<int>(error_record().sys));
    }
    started_ = true;
    return true;
}

bool GattBus::on_subscribe(IHardwareBus::PlugUnplug* /*subscriber*/) {
    try {
        return lazyStart();
    } catch (const DevioException& e) {
        e.record();
        DEVIO_LOG("GattBus", 1, "on_subscribe", "GattBus::on_subscribe exception");
        return false;
    }
}

std::vector<std::shared_ptr<IHardwareDevice>> GattBus::devices() {
    DEVIO_LOG("GattBus", 2, "devices", "GattBus::devices enter");
    std::vector<std::shared_ptr<IHardwareDevice>> list;
    try {
        if (!lazyStart()) return {};
        find_interfaces(list);
    } catch (const DevioException& e) {
        e.record();
        DEVIO_LOG("GattBus", 1, "devices", "GattBus::devices exception");
        return {};
    }
    if (list.empty()) set_error(Success);
    DEVIO_LOG("GattBus", 2, "devices", "GattBus::devices exit, returning %d devices",
              static_cast<int>(list.size()));
    return list;
}

void GattBus::find_interfaces(std::vector<std::shared_ptr<IHardwareDevice>>& out) {
    auto gatt = this->gatt();
    if (!gatt) return;
    std::vector<HidInterface> found = gatt->interfaces();
    for (const HidInterface& each : found) {
        DEVIO_LOG("GattBus", 3, "find_interfaces", "Bluetooth - find_interfaces %s",
                  each.path.c_str());
    }
    DEVIO_LOG("GattBus", 3, "find_interfaces", "Bluetooth - find_interfaces exit (found %d)",
              static_cast<int>(found.size()));
    for (const HidInterface& each : found) {
        auto device = std::make_shared<GattDevice>(weak_from_this(), bus_, gatt, each.path);
        if (!device->open()) {
            DEVIO_LOG("GattBus", 3, "EnumerateInterfaces",
                      "GattBus::EnumerateInterfaces ignoring device it could not open");
            continue;
        }
        device->close();
        out.push_back(device);
        DEVIO_LOG("GattBus", 3, "EnumerateInterfaces",
                  "GattBus::EnumerateInterfaces adding device to list");
    }
}

// On the platform bus's window thread: nothing here may hold that bus.
void GattBus::produceForPath(const std::string& path, bool arrival) {
    auto gatt = this->gatt();
    if (!gatt) return;
    std::shared_ptr<IHardwareDevice> device =
        std::make_shared<GattDevice>(weak_from_this(), bus_, gatt, path);
    if (arrival) {
        produce([device](IHardwareBus::PlugUnplug* s) { s->onPlug(device); },
                event_names::GattBusPlugUnplug.onPlug);
    } else {
        produce([device](IHardwareBus::PlugUnplug* s) { s->onUnplug(device); },
                event_names::GattBusPlugUnplug.onUnplug);
    }
}

void GattBus::process_wm_devicechange(unsigned event, const void* raw) {
    const auto* header = static_cast<const DeviceChangeHeader*>(raw);
    if (header == nullptr) {
        DEVIO_LOG("GattBus", 1, "process_wm_devicechange",
                  "GattBus ignoring WM_DEVICECHANGE without header, ");
        return;
    }
    bool arrival = false;
    switch (event) {
        case device_change::kArrival:
            DEVIO_LOG("GattBus", 3, "processDeviceChange",
                      "GattBus::processDeviceChange DBT_DEVICEARRIVAL");
            arrival = true;
            break;
        case device_change::kQueryRemove:
            DEVIO_LOG("GattBus", 3, "processDeviceChange",
                      "GattBus::processDeviceChange DBT_DEVICEQUERYREMOVE");
            break;
        case device_change::kQueryRemoveFailed:
            DEVIO_LOG("GattBus", 3, "processDeviceChange",
                      "GattBus::processDeviceChange DBT_DEVICEQUERYREMOVEFAILED");
            arrival = true;
            break;
        case device_change::kRemovePending:
            DEVIO_LOG("GattBus", 3, "processDeviceChange",
                      "GattBus::processDeviceChange DBT_DEVICEREMOVEPENDING");
            break;
        case device_change::kRemoveComplete:
            DEVIO_LOG("GattBus", 3, "processDeviceChange",
                      "GattBus::processDeviceChange DBT_DEVICEREMOVECOMPLETE");
            break;
        default:
            DEVIO_LOG("GattBus", 3, "processDeviceChange", "GattBus::processDeviceChange DBT=%d",
                      static_cast<int>(event));
            return;
    }
    if (header->device_type == device_change::kHandle) {
        // The platform bus owns the handles and has dealt with this one.
        DEVIO_LOG("GattBus", 3, "processDeviceChange",
                  "GattBus::processDeviceChange type=DBT_DEVTYP_HANDLE, left to Win32Bus");
        return;
    }
    if (header->device_type != device_change::kInterface ||
        header->interface_class != kVxpGattClass) {
        return;
    }
    if (arrival) {
        DEVIO_LOG("GattBus", 3, "processDeviceChange",
                  "GattBus::processDeviceChange arrive producing onPlug event");
    } else {
        DEVIO_LOG("GattBus", 3, "processDeviceChange",
                  "GattBus::processDeviceChange remove producing onUnplug event");
    }
    produceForPath(header->path, arrival);
}

void GattBus::read_failed_with_disconnect_error(const std::string& path) {
    std::shared_ptr<GattBus> self;
    try {
        self = shared_from_this();
    } catch (...) {
        return;
    }
    DEVIO_LOG("GattBus", 2, "read_failed_with_disconnect_error",
              "GattBus::read_failed_with_disconnect_error producing onUnPlug event");
    produceForPath(path, false);
}

bool GattBus::verify_device_exists(const std::string& path) {
    for (const auto& device : devices()) {
        if (device->path() == path) {
            DEVIO_LOG("GattBus", 2, "verify_device_exists",
                      "GattBus::verify_device_exists - device is present: %s", path.c_str());
            return true;
        }
    }
    DEVIO_LOG("GattBus", 1, "verify_device_exists",
              "GattBus::verify_device_exists - device was lost: %s", path.c_str());
    read_failed_with_disconnect_error(path);
    return false;
}

}  // namespace devio
