#include "Manager/CDevio.h"

#include <utility>

#include "Base/ErrorRecord.h"
#include "Manager/DeviceManager.h"
#include "log_buffer.h"
#include "xlog.h"

namespace devio {

// Holds the process's facade in storage that outlives every other static.
// Its destructor runs the exit sequence but never ends the facade's life.
// The log keeps buffering until the sequence's last line, whichever of the
// two the process destroys first.
class CDevioExitGuard {
public:
    constexpr CDevioExitGuard() : facade() {}
    ~CDevioExitGuard() {
        LogBuffer::exitBegins();
        facade.exit_sequence();
        LogBuffer::releaseShutdown();
    }

    union {
        CDevio facade;
    };
};

namespace {
constinit CDevioExitGuard exit_guard;
[[maybe_unused]] const bool log_held_for_exit = (LogBuffer::holdShutdown(), true);
}  // namespace

constinit CDevio& cdevio = exit_guard.facade;

IRunLoopQueue& runloop_queue() {
    return cdevio;
}

CDevio::~CDevio() {
    exit_sequence();
}

void CDevio::exit_sequence() {
    if (destroyed.load()) return;
    xLog("Devio", 2, "devio::CDevio::~CDevio", "CDevio::~CDevio");
    std::shared_ptr<DeviceManager> last;
    {
        std::lock_guard<std::mutex> lock(impl_mutex);
        if (!about_to_join && impl) {
            xLog("Devio", 2, "devio::CDevio::~CDevio",
                 "CDevio::~CDevio calling about_to_join() to avoid deadlock");
        }
        destroyed.store(true);
        last.swap(impl);
    }
    // The manager dies here, outside the lock (its destructor may reach back
    // into this object, which now answers that there is no manager), unless
    // a call still running elsewhere holds a copy; then it dies with that.
    last.reset();
}

std::shared_ptr<DeviceManager> CDevio::getimpl() {
    if (destroyed.load()) return nullptr;
    std::lock_guard<std::mutex> lock(impl_mutex);
    if (shutdown_requested) {
        xLog("Devio", 2, "devio::CDevio::getimpl",
             "CDevio::getimpl retuning nullptr due to shutdown");
        set_error(ShuttingDown);
        return nullptr;
    }
    if (!impl) {
        xLog("Devio", 2, "devio::CDevio::getimpl", "CDevio::getimpl creating cdevio DeviceManager");
        impl = std::make_shared<DeviceManager>();
    }
    return impl;
}

std::shared_ptr<DeviceManager> CDevio::impl_if_alive() {
    if (destroyed.load()) return nullptr;
    std::lock_guard<std::mutex> lock(impl_mutex);
    return impl;
}

std::shared_ptr<IDeviceManager> CDevio::manager() {
    xLog("Devio", 2, "devio::CDevio::manager", "CDevio::manager");
    return getimpl();
}

std::vector<std::shared_ptr<IDevice>> CDevio::devices() {
    xLog("Devio", 2, "devio::CDevio::devices", "CDevio::devices");
    auto manager = getimpl();
    return manager ? manager->devices() : std::vector<std::shared_ptr<IDevice>>();
}

std::vector<std::shared_ptr<IDevice>> CDevio::devices_on_bus(
    const std::shared_ptr<IHardwareBus>& bus) {
    xLog("Devio", 2, "devio::CDevio::devices_on_bus", "CDevio::devices_on_bus");
    auto manager = getimpl();
    return manager ? manager->devices_on_bus(bus) : std::vector<std::shared_ptr<IDevice>>();
}

void CDevio::set_active(bool active) {
    xLog("Devio", 2, "devio::CDevio::set_active", "CDevio::set_active");
    if (auto manager = getimpl()) manager->set_active(active);
}

void CDevio::persistent_data_directory(const std::string& directory) {
    xLog("Devio", 2, "devio::CDevio::persistent_data_directory",
         "CDevio::persistent_data_directory");
    if (auto manager = getimpl()) manager->persistent_data_directory(directory);
}

bool CDevio::config_set(unsigned item, bool value) {
    xLog("Devio", 2, "devio::CDevio::config_set", "CDevio::config_set");
    auto manager = getimpl();
    return manager ? manager->config_set(item, value) : false;
}

bool CDevio::connectToHardwareBusses() {
    xLog("Devio", 2, "devio::CDevio::connectToHardwareBusses", "CDevio::connectToHardwareBusses");
    auto manager = getimpl();
    return manager ? manager->connectToHardwareBusses() : false;
}

std::shared_ptr<IDevice> CDevio::makeDevice(const std::shared_ptr<IHardwareDevice>& hw,
                                            unsigned kind, unsigned pid) {
    xLog("Devio", 2, "devio::CDevio::makeDevice", "CDevio::makeDevice");
    auto manager = getimpl();
    return manager ? manager->makeDevice(hw, kind, pid) : nullptr;
}

bool CDevio::manual_subscribe(IDeviceManager::ArrivalRemoval* subscriber, int delivery) {
    xLog("Devio", 2, "devio::CDevio::manual_subscribe", "CDevio::manual_subscribe");
    auto manager = getimpl();
    return manager
               ? manager->Producer<IDeviceManager::ArrivalRemoval>::subscribe(subscriber, delivery)
               : false;
}

void CDevio::manual_unsubscribe(IDeviceManager::ArrivalRemoval* subscriber) {
    auto manager = impl_for_fabric("devio::CDevio::manual_unsubscribe", "manual_unsubscribe", true);
    if (manager) manager->Producer<IDeviceManager::ArrivalRemoval>::unsubscribe(subscriber);
}

void CDevio::swid(unsigned value) {
    xLog("Devio", 2, "devio::CDevio::swid", "CDevio::swid");
    if (auto manager = getimpl()) manager->swid(value);
}

unsigned CDevio::swid() {
    xLog("Devio", 2, "devio::CDevio::swid", "CDevio::swid");
    auto manager = getimpl();
    return manager ? manager->swid() : 15;
}

bool CDevio::is_active() {
    xLog("Devio", 2, "devio::CDevio::is_active", "CDevio::is_active");
    auto manager = getimpl();
    return manager ? manager->is_active() : false;
}

bool CDevio::config_default(unsigned item, bool* out) {
    xLog("Devio", 2, "devio::CDevio::config_default", "CDevio::config_default");
    auto manager = getimpl();
    return manager ? manager->config_default(item, out) : false;
}

bool CDevio::config_get(unsigned item, bool* out) {
    xLog("Devio", 2, "devio::CDevio::config_get", "CDevio::config_get");
    auto manager = getimpl();
    return manager ? manager->config_get(item, out) : false;
}

// The calls below come from the event fabric and from dying objects, also
// during exit after the exit sequence. They return at once then, without
// logging: the log facility may be gone too.
std::shared_ptr<DeviceManager> CDevio::impl_for_fabric(const char* function, const char* operation,
                                                       bool log_skipping) {
    if (destroyed.load()) return nullptr;
    xLog("Devio", 2, function, "CDevio::%s", operation);
    auto manager = impl_if_alive();
    if (!manager && log_skipping) xLog("Devio", 2, function, "skipping CDevio::%s", operation);
    return manager;
}

void CDevio::report_unreported_error(const char* where) {
    auto manager =
        impl_for_fabric("devio::CDevio::report_unreported_error", "report_unreported_error", true);
    if (manager) manager->report_unreported_error(where);
}

void CDevio::enqueue_event_for_runloop(RunLoopClosure closure, void* subscriber, const void* set,
                                       std::string name) {
    auto manager = impl_for_fabric("devio::CDevio::enqueue_event_for_runloop",
                                   "enqueue_event_for_runloop", true);
    if (manager) {
        manager->enqueue_event_for_runloop(std::move(closure), subscriber, set, std::move(name));
    }
}

void CDevio::call_event_from_runloop() {
    auto manager =
        impl_for_fabric("devio::CDevio::call_event_from_runloop", "call_event_from_runloop", false);
    if (manager) manager->call_event_from_runloop();
}

void CDevio::remove_runloop_events(void* subscriber, const void* set) {
    auto manager =
        impl_for_fabric("devio::CDevio::remove_runloop_events", "remove_runloop_events", true);
    if (manager) manager->remove_runloop_events(subscriber, set);
}

void CDevio::discard_runloop_events(void* subscriber, const void* set) {
    auto manager =
        impl_for_fabric("devio::CDevio::discard_runloop_events", "discard_runloop_events", true);
    if (manager) manager->discard_runloop_events(subscriber, set);
}

}  // namespace devio
