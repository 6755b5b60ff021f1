#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "Manager/IDeviceManager.h"

namespace devio {

class DeviceManager;

// The library's one public object, `cdevio`, a static of the process. It
// makes the real implementation, `DeviceManager`, on first need and forwards
// to it. Any thread may call it, also while the process is exiting: the
// event fabric reaches it from producers and subscribers that die during
// static destruction, and from threads that still run.
//
// `impl_mutex` guards only the pointer. Every call works on its own copy of
// it, so the manager cannot die in the middle of a call, and no lock of ours
// is held while the manager runs.
//
// `cdevio` is constant-initialised, so it is usable before any other static
// starts. Its exit sequence runs when the process destroys the statics of
// its own file, before or after those of other files as the link order has
// it; the log buffers the sequence's lines and ends after them either way.
// Its storage is never destroyed: the exit sequence only marks it destroyed
// and lets the manager go, so that a call that comes even later still finds
// a valid object that answers "nothing here".
class CDevio : public IDeviceManager {
public:
    constexpr CDevio() = default;
    CDevio(const CDevio&) = delete;
    CDevio& operator=(const CDevio&) = delete;
    // Runs the exit sequence (for instances other than `cdevio`).
    ~CDevio() override;

    // The manager, made if need be; empty when shutting down. A host uses it
    // to subscribe to the manager's events, such as RunLoopEvent.
    std::shared_ptr<IDeviceManager> manager();

    std::vector<std::shared_ptr<IDevice>> devices() override;
    std::vector<std::shared_ptr<IDevice>> devices_on_bus(
        const std::shared_ptr<IHardwareBus>& bus) override;
    void swid(unsigned value) override;
    unsigned swid() override;
    bool is_active() override;
    void set_active(bool active) override;
    void persistent_data_directory(const std::string& directory) override;
    bool config_default(unsigned item, bool* out) override;
    bool config_get(unsigned item, bool* out) override;
    bool config_set(unsigned item, bool value) override;
    bool connectToHardwareBusses() override;
    std::shared_ptr<IDevice> makeDevice(const std::shared_ptr<IHardwareDevice>& hw, unsigned kind,
                                        unsigned pid) override;
    // Arrivals and removals without a Subscriber object's bookkeeping: the
    // host keeps the pointer valid until it unsubscribes.
    bool manual_subscribe(IDeviceManager::ArrivalRemoval* subscriber, int delivery);
    void manual_unsubscribe(IDeviceManager::ArrivalRemoval* subscriber);
    void report_unreported_error(const char* where) override;
    void enqueue_event_for_runloop(RunLoopClosure closure, void* subscriber, const void* set,
                                   std::string name) override;
    void call_event_from_runloop() override;
    void remove_runloop_events(void* subscriber, const void* set) override;
    void discard_runloop_events(void* subscriber, const void* set) override;

private:
    friend class CDevioExitGuard;

    // Marks the object destroyed before it lets the manager go, so that
    // threads that still run and objects that die later find no manager
    // instead of a half-dead one.
    void exit_sequence();
    // For the calls of a host: creates the manager when there is none.
    std::shared_ptr<DeviceManager> getimpl();
    // For the calls of the event fabric and of dying objects: never creates.
    std::shared_ptr<DeviceManager> impl_if_alive();
    // `impl_if_alive` with the logging of those calls: their own name, and
    // their skipping when there is no manager.
    std::shared_ptr<DeviceManager> impl_for_fabric(const char* function, const char* operation,
                                                   bool log_skipping);

    std::shared_ptr<DeviceManager> impl;
    std::mutex impl_mutex;
    bool shutdown_requested = false;
    bool about_to_join = false;
    std::atomic<bool> destroyed{false};
};

extern CDevio& cdevio;

}  // namespace devio
