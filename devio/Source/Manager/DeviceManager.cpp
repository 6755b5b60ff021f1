#include "Manager/DeviceManager.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>

#include "Base/ErrorRecord.h"
#include "Device/Device.h"
#include "xlog.h"

namespace devio {

DeviceManager::DeviceManager() {
    xLog("DeviceManager", 2, "devio::DeviceManager::DeviceManager", "-api- %p",
         static_cast<void*>(this));
    // Software ids are drawn with rand(); two processes started together
    // must not draw the same one, so seed from a fine-grained clock.
    auto micros = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now().time_since_epoch());
    auto seed = static_cast<std::uint32_t>(micros.count());
    xLog("DeviceManager", 2, "devio::DeviceManager::DeviceManager", "using seed %d for random",
         static_cast<int>(seed));
    std::srand(seed);
    for (unsigned item = 0; item < config_items.size(); ++item) {
        bool value = false;
        config_default(item, &value);
        config_items[item] = value;
    }
}

DeviceManager::~DeviceManager() {
    xLog("DeviceManager", 2, "devio::DeviceManager::~DeviceManager", "-api- %p",
         static_cast<void*>(this));
    if (shutting_down.exchange(true)) {
        xLog("DeviceManager", 0, "devio::DeviceManager::~DeviceManager",
             "DeviceManager destructor called recursively");
        return;
    }
    // Devices are handed back while the buses still run, since that takes
    // commands; then the stack goes, which unplugs whatever is left.
    DeviceList devices_now;
    BusSet tops;
    {
        std::lock_guard<std::mutex> lock(list_mutex);
        devices_now = deviceList;
        tops = top_busses;
    }
    for (const auto& [hw, device] : devices_now) device->shutdown();
    for (const auto& bus : tops) removeBus(bus);
    if (addbus_retry_timer) addbus_retry_timer->stop();
    // From here on nothing is queued any more. Queued closures die with the
    // queue; the objects they hold may reach back into the library, but
    // `CDevio` no longer leads to this manager.
    xLog("DeviceManager", 2, "devio::DeviceManager::~DeviceManager",
         "DeviceManager::~DeviceManager() ... end.");
}

void DeviceManager::swid(unsigned value) {
    manager_swid = value & 15;
}

void DeviceManager::set_active(bool new_state) {
    xLog("DeviceManager", 2, "devio::DeviceManager::set_active", "-api- %d", new_state);
    std::call_once(active_subscription, [this] {
        if (!Subscriber<IDeviceManager::ActiveChanged>::subscribe(shared_from_this(),
                                                                  DeliveryRunLoop)) {
            report_unreported_error(
                "DeviceManager::set_active subscribe(IDeviceManager::ActiveChanged)");
        }
    });
    // A repeated true is told again (each device compares with its own
    // copy); a repeated false is not.
    const bool before = active.exchange(new_state);
    if (before == new_state && !new_state) return;
    Producer<IDeviceManager::ActiveChanged>::produce(
        [new_state](IDeviceManager::ActiveChanged* s) { s->onActiveChanged(new_state); },
        event_names::DeviceManagerActiveChanged.onActiveChanged);
}

void DeviceManager::onActiveChanged(bool now_active) {
    xLog("DeviceManager", 2, "devio::DeviceManager::onActiveChanged",
         "DeviceManager::onActiveChanged(active = %d)", now_active);
    if (!now_active) return;
    BusSet all;
    {
        std::lock_guard<std::mutex> lock(list_mutex);
        all = busses;
    }
    // Each bus announces again what it has.
    for (const auto& bus : all) bus->devices();
}

void DeviceManager::persistent_data_directory(const std::string& directory) {
    std::string dir = directory;
    if (!dir.empty() && dir.back() != '/' && dir.back() != '\\') dir += '/';
    xLog("DeviceManager", 2, "devio::DeviceManager::persistent_data_directory",
         "-api- persistent_data_directory %s", dir.c_str());
    DeviceList devices_now;
    BusSet all;
    {
        std::lock_guard<std::mutex> lock(list_mutex);
        persistent_dir = dir;
        devices_now = deviceList;
        all = busses;
    }
    for (const auto& [hw, device] : devices_now) {
        if (auto d = as_device(device)) d->persistent_data_directory(dir);
    }
    for (const auto& bus : all) bus->persistent_data_directory(dir);
}

unsigned DeviceManager::swid() {
    unsigned current = manager_swid.load();
    if (current != 0) return current;
    // Ids 10 to 14 leave the low ones to programs that pick the obvious.
    const auto drawn = static_cast<unsigned>(std::rand() % 5 + 10);
    return manager_swid.compare_exchange_strong(current, drawn) ? drawn : current;
}

bool DeviceManager::config_default(unsigned item, bool* out) {
    xLog("DeviceManager", 3, "devio::DeviceManager::config_default",
         "DeviceManager::config_default %d", static_cast<int>(item));
    if (item >= config_items.size()) {
        xLog("DeviceManager", 2, "devio::DeviceManager::config_default",
             "DeviceManager::config_default exit, invalid config item %d", static_cast<int>(item));
        set_error(InvalidConfigItem);
        return false;
    }
    if (out != nullptr) *out = item == 2 || item == 7;
    return true;
}

bool DeviceManager::config_get(unsigned item, bool* out) {
    xLog("DeviceManager", 3, "devio::DeviceManager::config_get", "DeviceManager::config_get %d",
         static_cast<int>(item));
    if (item >= config_items.size()) {
        xLog("DeviceManager", 2, "devio::DeviceManager::config_get",
             "DeviceManager::config_get exit, invalid config item %d", static_cast<int>(item));
        set_error(InvalidConfigItem);
        return false;
    }
    if (out != nullptr) *out = config_items[item].load();
    return true;
}

bool DeviceManager::config_set(unsigned item, bool value) {
    xLog("DeviceManager", 2, "devio::DeviceManager::config_set", "-api- %d = %d",
         static_cast<int>(item), value);
    if (item >= config_items.size()) {
        xLog("DeviceManager", 2, "devio::DeviceManager::config_set",
             "DeviceManager::config_set exit, invalid config item %d = %d", static_cast<int>(item),
             value);
        set_error(InvalidConfigItem);
        return false;
    }
    std::lock_guard<std::mutex> stack(stack_mutex);
    if (config_items[item].exchange(value) != value && hw_started) {
        // Buses and devices read the items when they are made, so a change
        // after the start takes a new stack.
        xLog("DeviceManager", 2, "devio::DeviceManager::config_set",
             "DeviceManager::config_set removing busses");
        BusSet tops;
        {
            std::lock_guard<std::mutex> lock(list_mutex);
            tops = top_busses;
        }
        for (const auto& bus : tops) removeBus(bus);
        {
            std::lock_guard<std::mutex> lock(list_mutex);
            top_busses.clear();
        }
        xLog("DeviceManager", 2, "devio::DeviceManager::config_set",
             "DeviceManager::config_set creating busses");
        connectToHardwareBusses();
    }
    xLog("DeviceManager", 2, "devio::DeviceManager::config_set",
         "DeviceManager::config_set exit, %d = %d", static_cast<int>(item), value);
    return true;
}

void DeviceManager::report_unreported_error(const char* where) {
    const ErrorRecord record = error_record();
    if (record.err == Success || shutting_down.load()) return;
    // The text pointer goes out as a number: these lines have always shown
    // it so, and the text itself travels with the event.
    xLog("DeviceManager", 1, "devio::DeviceManager::report_unreported_error",
         "-api- Reporting unreported error: %s, err=%d, str=%d, sys=0x%x", where,
         static_cast<int>(record.err),
         static_cast<int>(reinterpret_cast<std::uintptr_t>(record.str)), record.sys);
    Producer<IDeviceManager::UnreportedError>::produce(
        [where, record](IDeviceManager::UnreportedError* subscriber) {
            subscriber->onUnreportedError(where, record.err, record.str, record.sys);
        },
        event_names::DeviceManagerUnreportedError.onUnreportedError);
}

}  // namespace devio
