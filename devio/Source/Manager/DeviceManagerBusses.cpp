// The bus stack of DeviceManager and what arrives through it: hardware
// devices become Device objects (or, for a receiver, a bus of their own),
// in the list that `devices` reads.

#include <algorithm>

#include "Base/ErrorRecord.h"
#include "Base/Timer.h"
#include "Bus/Combiner/CombinerBus.h"
#include "Bus/IHardwareDevice.h"
#include "Bus/Pairing/PairingBus.h"
#include "Device/Device.h"
#include "Manager/DeviceManager.h"
#include "Manager/ReceiverTable.h"
#include "Windows/Win32Bus.h"
#include "xlog.h"

#define DM_LOG(level, function, ...) \
    ::devio::xLog("DeviceManager", level, "devio::DeviceManager::" function, __VA_ARGS__)

namespace devio {

namespace {
constexpr int kAddBusRetryTimerId = 1;
constexpr int kFirstRetryDelayMs = 2000;
// After this many failed retries a receiver's enumeration is given up.
constexpr unsigned kMaxRetries = 9;

enum ConfigItem : unsigned {
    kBluetoothActive = 0,
    kBleActive = 1,
    kReceiversActive = 4,
    kCordedActive = 5,
};
}  // namespace

bool DeviceManager::ByPath::operator()(const std::shared_ptr<IHardwareDevice>& a,
                                       const std::shared_ptr<IHardwareDevice>& b) const {
    return a->path() < b->path();
}

std::shared_ptr<Device> DeviceManager::as_device(const std::shared_ptr<IDevice>& device) {
    return std::dynamic_pointer_cast<Device>(device);
}

std::shared_ptr<IHardwareBus> DeviceManager::makePlatformBus() {
    return Win32Bus::create(weak_from_this());
}

bool DeviceManager::on_subscribe(IDeviceManager::ArrivalRemoval* /*subscriber*/) {
    DM_LOG(2, "on_subscribe", "-api- ArrivalRemoval");
    return lazyInitializeHardwareBusses();
}

bool DeviceManager::lazyInitializeHardwareBusses() {
    std::lock_guard<std::mutex> stack(stack_mutex);
    if (hw_started) return true;
    if (!addbus_retry_timer) {
        auto timer = std::make_shared<Timer>(kAddBusRetryTimerId);
        if (!Subscriber<ITimer::TimerEvent>::subscribe(timer, DeliveryRunLoop)) {
            DM_LOG(0, "lazyInit", "DeviceManager::lazyInit failed at subscribe");
            return false;
        }
        addbus_retry_timer = timer;
    }
    DM_LOG(2, "lazyInit", "DeviceManager::lazyInit connecting to hardware busses");
    if (!connectToHardwareBusses()) {
        DM_LOG(0, "lazyInit", "DeviceManager::lazyInit failed at connect");
        return false;
    }
    DM_LOG(2, "lazyInit", "DeviceManager::lazyInit complete");
    hw_started = true;
    return true;
}

bool DeviceManager::connectToHardwareBusses() {
    DM_LOG(2, "connectToHardwareBusses", "connectToHardwareBusses enter");
    std::shared_ptr<IHardwareBus> bus = makePlatformBus();
    if (bus->needs_combiner()) {
        DM_LOG(2, "connectToHardwareBusses", "inserting combiner filter");
        bus = std::make_shared<CombinerBus>(bus, weak_from_this());
    }
    if (!bus->bluetooth_busses().empty()) {
        DM_LOG(2, "connectToHardwareBusses", "inserting pairing filter");
        bus = std::make_shared<PairingBus>(bus, weak_from_this());
    }
    const auto secondary = bus->secondary_busses();
    if (!addTopBus(bus)) {
        DM_LOG(2, "connectToHardwareBusses", "connectToHardwareBusses exit, false");
        return false;
    }
    for (const auto& extra : secondary) {
        DM_LOG(2, "connectToHardwareBusses", "DeviceManager adding a secondary bus");
        if (!addTopBus(extra)) {
            DM_LOG(2, "connectToHardwareBusses", "connectToHardwareBusses exit, false");
            return false;
        }
    }
    DM_LOG(2, "connectToHardwareBusses", "connectToHardwareBusses exit, true");
    return true;
}

bool DeviceManager::addTopBus(const std::shared_ptr<IHardwareBus>& bus) {
    try {
        if (!addBus(bus)) return false;
    } catch (...) {
        // A damaged file that the bus reads once told its directory throws
        // out of the start. The bus runs by then: it stays one of the tops,
        // to go with the others, and the stack counts as built, so that the
        // next call does not build a second one beside it.
        std::lock_guard<std::mutex> lock(list_mutex);
        top_busses.insert(bus);
        hw_started = true;
        throw;
    }
    std::lock_guard<std::mutex> lock(list_mutex);
    top_busses.insert(bus);
    return true;
}

bool DeviceManager::addBus(const std::shared_ptr<IHardwareBus>& bus) {
    DM_LOG(2, "addBus", "DeviceManager::addBus enter");
    if (!Subscriber<IHardwareBus::PlugUnplug>::subscribe(bus, DeliveryRunLoop)) {
        DM_LOG(0, "addBus",
               "DeviceManager::addBus exit (false, failed to subscribe to PlugUnplug, err=%d)",
               static_cast<int>(error_record().err));
        return false;
    }
    const auto present = bus->devices();
    if (present.empty() && error_record().err != Success) {
        DM_LOG(0, "addBus", "DeviceManager::addBus failed to enumerate devices!");
        DM_LOG(0, "addBus", "addBus exit (false, error enumerating devices)");
        return false;
    }
    DM_LOG(2, "addBus", "DeviceManager::addBus saving bus");
    std::string dir;
    {
        std::lock_guard<std::mutex> lock(list_mutex);
        busses.insert(bus);
        dir = persistent_dir;
    }
    // Everything present at the start goes through onPlug here, on this
    // thread: a host that never pumps still gets its devices.
    for (const auto& hw : present) {
        DM_LOG(2, "addBus", "DeviceManager::addBus calling onPlug(hwdev)");
        onPlug(hw);
    }
    bus->persistent_data_directory(dir);
    DM_LOG(2, "addBus", "DeviceManager::addBus exit (true, success)");
    return true;
}

void DeviceManager::removeBus(const std::shared_ptr<IHardwareBus>& bus) {
    DM_LOG(2, "removeBus", "DeviceManager::removeBus enter");
    std::vector<std::shared_ptr<IHardwareDevice>> children;
    {
        std::lock_guard<std::mutex> lock(list_mutex);
        // A filter bus hands on devices that name the bus below it as
        // theirs, a bus the manager never added: those go with the top bus.
        const bool top = top_busses.count(bus) != 0;
        for (const auto& [hw, device] : deviceList) {
            const auto owner = hw->bus();
            if (owner == bus || (top && busses.count(owner) == 0)) children.push_back(hw);
        }
    }
    for (const auto& hw : children) {
        DM_LOG(2, "removeBus", "DeviceManager::removeBus unplugging a child");
        onUnplug(hw);
    }
    Subscriber<IHardwareBus::PlugUnplug>::unsubscribe(bus);
    {
        std::lock_guard<std::mutex> lock(list_mutex);
        busses.erase(bus);
        addbus_retry_set.erase(bus);
    }
    DM_LOG(2, "removeBus", "DeviceManager::removeBus exit");
}

bool DeviceManager::passes_suppression(const std::shared_ptr<IHardwareDevice>& hw) {
    const int pid = hw->pid();
    switch (hw->bustype()) {
        case 0:
            if (pid >= 0xA100 && pid <= 0xA1FF && config_items[kReceiversActive]) return true;
            return config_items[kCordedActive];
        case 1:
            return config_items[kReceiversActive];
        case 2:
            return config_items[kBluetoothActive];
        case 3:
            return config_items[kBleActive];
        default:
            return true;
    }
}

std::shared_ptr<IDevice> DeviceManager::makeDevice(const std::shared_ptr<IHardwareDevice>& hw,
                                                   unsigned kind, unsigned pid) {
    DM_LOG(2, "makeDevice", "DeviceManager::makeDevice enter");
    if (config_items[kReceiversActive] && kind == 0 && find_receiver(static_cast<int>(pid))) {
        // FIXME: make the receiver's bus here (maxDevices and protocolByte
        // from the receiver table) once receivers have one; until then a
        // receiver is handled as a plain device.
        DM_LOG(2, "makeDevice", "DeviceManager::makeDevice making a braid bus");
    }
    DM_LOG(2, "makeDevice", "DeviceManager::makeDevice making a device");
    auto device = std::make_shared<Device>(hw);
    DM_LOG(2, "makeDevice", "DeviceManager::makeDevice initializing a device");
    device->initDevice(shared_from_this());
    std::string dir;
    {
        std::lock_guard<std::mutex> lock(list_mutex);
        dir = persistent_dir;
    }
    device->persistent_data_directory(dir);
    DM_LOG(2, "makeDevice", "DeviceManager::makeDevice exit, made device");
    return device;
}

void DeviceManager::onPlug(const std::shared_ptr<IHardwareDevice>& hw) {
    // The start (on the thread inside devices) and a pumping host may both
    // plug the same device: one at a time, so that the second finds it known.
    std::lock_guard<std::recursive_mutex> plugging(plug_mutex);
    const int pid = hw->pid();
    DM_LOG(2, "onPlug", "DeviceManager::onPlug(pid=0x%x) begin...", pid);
    if (!hw->open()) {
        DM_LOG(2, "onPlug", "DeviceManager::onPlug ignoring device it could not open");
        DM_LOG(2, "onPlug", "DeviceManager::onPlug(pid=0x%x) end...", pid);
        return;
    }
    if (!passes_suppression(hw)) {
        DM_LOG(2, "onPlug", "DeviceManager::onPlug ignoring suppressed device");
        return;
    }
    std::shared_ptr<IDevice> device;
    bool known = false;
    {
        std::lock_guard<std::mutex> lock(list_mutex);
        known = deviceList.count(hw) != 0;
    }
    if (known) {
        DM_LOG(2, "onPlug", "  -- there is already a device (existing count = %d) for hwdev: %p", 1,
               static_cast<void*>(hw.get()));
    } else {
        device = makeDevice(hw, 0, static_cast<unsigned>(pid));
        DM_LOG(2, "onPlug", "   -- adding device pid=0x%x to deviceList", pid);
        {
            std::lock_guard<std::mutex> lock(list_mutex);
            // Another thread may have plugged the same path meanwhile (the
            // start and a pumping host): the first one stays.
            known = !deviceList.emplace(hw, device).second;
        }
        if (known) {
            device->uninitDevice();
            device.reset();
        } else {
            DM_LOG(2, "onPlug", "   -- deviceList[%p] = %p", static_cast<void*>(hw.get()),
                   static_cast<void*>(device.get()));
        }
    }
    dumpDevices();
    if (device) {
        DM_LOG(2, "onPlug", "-api- pid=0x%x producing onDeviceArrival", pid);
        Producer<IDeviceManager::ArrivalRemoval>::produce(
            [device](IDeviceManager::ArrivalRemoval* s) { s->onDeviceArrival(device); },
            event_names::DeviceManagerArrivalRemoval.onDeviceArrival);
        // FIXME: a receiver's bus is added here once receivers have one; when
        // its enumeration fails it joins addbus_retry_set, and a count of 0
        // becomes 1 with the retry timer armed for kFirstRetryDelayMs.
    }
    DM_LOG(2, "onPlug", "DeviceManager::onPlug(pid=0x%x) ...end", pid);
}

void DeviceManager::onUnplug(const std::shared_ptr<IHardwareDevice>& hw) {
    std::lock_guard<std::recursive_mutex> plugging(plug_mutex);
    const int pid = hw->pid();
    DM_LOG(2, "onUnplug", "DeviceManager::onUnplug(pid=0x%x) begin...", pid);
    std::shared_ptr<IDevice> device;
    {
        std::lock_guard<std::mutex> lock(list_mutex);
        auto found = deviceList.find(hw);
        if (found != deviceList.end()) device = found->second;
    }
    if (device) {
        if (auto bus = std::dynamic_pointer_cast<IHardwareBus>(device)) {
            DM_LOG(2, "onUnplug", "DeviceManager::onUnplug receiver removing bus");
            removeBus(bus);
        }
        device->uninitDevice();
        if (!shutting_down.load()) {
            DM_LOG(2, "onUnplug", "-api- pid=0x%x producing onDeviceRemoval", pid);
            Producer<IDeviceManager::ArrivalRemoval>::produce(
                [device](IDeviceManager::ArrivalRemoval* s) { s->onDeviceRemoval(device); },
                event_names::DeviceManagerArrivalRemoval.onDeviceRemoval);
        }
        DM_LOG(2, "onUnplug", "   -- removing device pid=0x%x from deviceList", pid);
        {
            std::lock_guard<std::mutex> lock(list_mutex);
            auto found = deviceList.find(hw);
            if (found != deviceList.end() && found->second == device) deviceList.erase(found);
        }
        dumpDevices();
    }
    DM_LOG(2, "onUnplug", "DeviceManager::onUnplug(pid=0x%x) ...end", pid);
}

void DeviceManager::onPowerChange(bool standBy) {
    DM_LOG(2, "onPowerChange", "DeviceManager::onPowerChange(standBy=%d)", standBy);
    if (standBy) return;
    // FIXME: each receiver's bus re-reads its paired devices first, once
    // receivers have one.
    DeviceList devices_now;
    {
        std::lock_guard<std::mutex> lock(list_mutex);
        devices_now = deviceList;
    }
    // The machine slept: any device may have lost what we wrote into it.
    for (const auto& [hw, device] : devices_now) device->confirm_configuration();
}

void DeviceManager::onTimerEvent(int id) {
    if (id != kAddBusRetryTimerId) return;
    DM_LOG(2, "onTimerEvent", "DeviceManager::onTimerEvent(addbusRetryTimerId)");
    BusSet waiting;
    {
        std::lock_guard<std::mutex> lock(list_mutex);
        waiting = addbus_retry_set;
    }
    int failed = 0;
    for (const auto& bus : waiting) {
        DM_LOG(2, "onTimerEvent",
               "DeviceManager::onTimerEvent(addbusRetryTimerId) attempting addbus");
        if (addBus(bus)) {
            DM_LOG(2, "onTimerEvent",
                   "DeviceManager::onTimerEvent(addbusRetryTimerId) addbus successful");
            std::lock_guard<std::mutex> lock(list_mutex);
            addbus_retry_set.erase(bus);
        } else {
            DM_LOG(1, "onTimerEvent",
                   "DeviceManager::onTimerEvent(addbusRetryTimerId) addBus returned error %d",
                   static_cast<int>(error_record().err));
            ++failed;
        }
    }
    if (waiting.empty()) return;
    unsigned count;
    {
        std::lock_guard<std::mutex> lock(list_mutex);
        if (failed == 0) {
            addbus_retry_count = 0;
            return;
        }
        DM_LOG(1, "onTimerEvent", "DeviceManager::onTimerEvent(addbusRetryTimerId) retry %d failed",
               static_cast<int>(addbus_retry_count));
        count = ++addbus_retry_count;
        if (count > kMaxRetries) {
            addbus_retry_count = 0;
            addbus_retry_set.clear();
        }
    }
    if (count > kMaxRetries) {
        set_error(EnumerationFailed, "Braid device enumeration failed after max retry attempts", 0);
        report_unreported_error("BraidBus");
        report_unreported_error("DeviceManager::addBus retry failed all attempts");
        return;
    }
    DM_LOG(2, "onTimerEvent",
           "DeviceManager::onTimerEvent(addbusRetryTimerId) starting retry timer");
    // 2 s, then 8, 16, ... 1024 s: the count is already 2 at the first re-arming.
    addbus_retry_timer->start(kFirstRetryDelayMs << count);
}

std::vector<std::shared_ptr<IDevice>> DeviceManager::devices() {
    DM_LOG(2, "devices", "-api- enter");
    if (!lazyInitializeHardwareBusses()) {
        DM_LOG(2, "devices", "DeviceManager::devices() exit (false, lazyInit failed)");
        return {};
    }
    BusSet tops;
    {
        std::lock_guard<std::mutex> lock(list_mutex);
        tops = top_busses;
    }
    for (const auto& bus : tops) bus->refresh();
    std::vector<std::shared_ptr<IDevice>> result;
    {
        std::lock_guard<std::mutex> lock(list_mutex);
        for (const auto& [hw, device] : deviceList) result.push_back(device);
    }
    if (result.empty()) set_error(Success, nullptr, 0);
    DM_LOG(2, "devices", "-api- exit, returned %d devices", static_cast<int>(result.size()));
    return result;
}

std::vector<std::shared_ptr<IDevice>> DeviceManager::devices_on_bus(
    const std::shared_ptr<IHardwareBus>& bus) {
    std::vector<std::shared_ptr<IDevice>> result;
    for (const auto& device : devices()) {
        if (device->bus() == bus) result.push_back(device);
    }
    return result;
}

void DeviceManager::dumpDevices() {
    std::vector<int> pids;
    {
        std::lock_guard<std::mutex> lock(list_mutex);
        for (const auto& [hw, device] : deviceList) pids.push_back(hw->pid());
    }
    DM_LOG(3, "dumpDevices", "---- DeviceManager::dumpDevices() begin... ----");
    for (int pid : pids) DM_LOG(3, "dumpDevices", "  -- device with pid: 0x%x", pid);
    DM_LOG(3, "dumpDevices", "---- DeviceManager::dumpDevices() ...end ----");
}

}  // namespace devio
