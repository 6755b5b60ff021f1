#include "Manager/DeviceManager.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>

#include "Base/ErrorRecord.h"
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
    // From here on nothing is queued any more. Queued closures die with the
    // queue; the objects they hold may reach back into the library, but
    // `CDevio` no longer leads to this manager.
    xLog("DeviceManager", 2, "devio::DeviceManager::~DeviceManager",
         "DeviceManager::~DeviceManager() ... end.");
}

void DeviceManager::swid(unsigned value) {
    manager_swid = value & 15;
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
