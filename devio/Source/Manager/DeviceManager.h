#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Base/ITimer.h"
#include "Base/Producer.h"
#include "Base/Subscriber.h"
#include "Bus/IHardwareBus.h"
#include "Manager/IDeviceManager.h"

namespace devio {

class Device;

// The implementation behind `CDevio`: it owns the bus stack, the list of
// devices, the active flag, the eight configuration items and the run-loop
// queue. The library has no thread of its own for delivery 0, so it queues
// each such delivery and asks the host, through RunLoopEvent, to lend it a
// thread.
//
// Threads: any host thread calls the operations of IDeviceManager; onPlug,
// onUnplug, onPowerChange, onTimerEvent and onActiveChanged arrive on the
// host's pumping thread, and onPlug also on the thread inside `devices`
// while the stack starts. `stack_mutex` serialises starting and rebuilding
// the stack. `list_mutex` guards `deviceList`, the bus sets and the retry
// state; it is never held while a bus, a device or a subscriber is called.
// `queue_mutex` guards the run-loop queue, the trigger counter and the list
// of running deliveries, and is never held while a closure runs or an event
// is produced.
//
// Lock order: `stack_mutex`, then `plug_mutex`, then a producer's mutex, then
// `list_mutex` or `queue_mutex`. A direct subscriber of arrivals and removals
// runs under `plug_mutex` and must not wait for another thread that plugs. The RunLoopEvent
// producer's mutex is taken only after `queue_mutex` was released.
class DeviceManager : public IDeviceManager,
                      public Producer<IDeviceManager::ArrivalRemoval>,
                      public Producer<IDeviceManager::ActiveChanged>,
                      public Producer<IDeviceManager::UnreportedError>,
                      public Producer<IDeviceManager::RunLoopEvent>,
                      public Subscriber<IHardwareBus::PlugUnplug>,
                      public Subscriber<IDeviceManager::ActiveChanged>,
                      public Subscriber<ITimer::TimerEvent>,
                      public std::enable_shared_from_this<DeviceManager> {
public:
    DeviceManager();
    ~DeviceManager() override;

    // IDeviceManager
    std::vector<std::shared_ptr<IDevice>> devices() override;
    std::vector<std::shared_ptr<IDevice>> devices_on_bus(
        const std::shared_ptr<IHardwareBus>& bus) override;
    void swid(unsigned value) override;
    unsigned swid() override;
    bool is_active() override { return active.load(); }
    void set_active(bool active) override;
    void report_unreported_error(const char* where) override;
    void enqueue_event_for_runloop(RunLoopClosure closure, void* subscriber, const void* set,
                                   std::string name) override;
    void call_event_from_runloop() override;
    void remove_runloop_events(void* subscriber, const void* set) override;
    void discard_runloop_events(void* subscriber, const void* set) override;
    void persistent_data_directory(const std::string& directory) override;
    bool config_default(unsigned item, bool* out) override;
    bool config_get(unsigned item, bool* out) override;
    bool config_set(unsigned item, bool value) override;
    bool connectToHardwareBusses() override;
    std::shared_ptr<IDevice> makeDevice(const std::shared_ptr<IHardwareDevice>& hw, unsigned kind,
                                        unsigned pid) override;

    // Subscribes to the bus's arrivals and removals and plugs what it has
    // now; false, with the reason in the record, when either failed.
    // addBus for a bus at the top of the stack, kept among the tops.
    bool addTopBus(const std::shared_ptr<IHardwareBus>& bus);
    bool addBus(const std::shared_ptr<IHardwareBus>& bus);
    // Unplugs the devices of the bus and forgets it.
    void removeBus(const std::shared_ptr<IHardwareBus>& bus);
    // Logs the device list at level 3.
    void dumpDevices();

    // IHardwareBus::PlugUnplug, with delivery 0 (and directly from addBus).
    void onPlug(const std::shared_ptr<IHardwareDevice>& hw) override;
    void onUnplug(const std::shared_ptr<IHardwareDevice>& hw) override;
    void onPowerChange(bool standBy) override;
    // Its own ActiveChanged, with delivery 0.
    void onActiveChanged(bool active) override;
    // The retry timer of receivers whose enumeration failed.
    void onTimerEvent(int id) override;

    // A RunLoopEvent subscriber with delivery 0 would ask for a pump through
    // the very queue it is meant to pump, without end; it is refused.
    using Producer<IDeviceManager::ArrivalRemoval>::subscribe;
    using Producer<IDeviceManager::ActiveChanged>::subscribe;
    using Producer<IDeviceManager::UnreportedError>::subscribe;
    using Subscriber<IHardwareBus::PlugUnplug>::subscribe;
    using Subscriber<IDeviceManager::ActiveChanged>::subscribe;
    using Subscriber<ITimer::TimerEvent>::subscribe;
    bool subscribe(IDeviceManager::RunLoopEvent* subscriber, int delivery) override;

protected:
    // A subscriber of arrivals and removals starts the library, as
    // `devices` does.
    using Producer<IDeviceManager::ActiveChanged>::on_subscribe;
    using Producer<IDeviceManager::UnreportedError>::on_subscribe;
    using Producer<IDeviceManager::RunLoopEvent>::on_subscribe;
    bool on_subscribe(IDeviceManager::ArrivalRemoval* subscriber) override;
    // A host that subscribes to RunLoopEvent late is told about every event
    // that is already waiting.
    using Producer<IDeviceManager::ArrivalRemoval>::on_subscription_added;
    using Producer<IDeviceManager::ActiveChanged>::on_subscription_added;
    using Producer<IDeviceManager::UnreportedError>::on_subscription_added;
    void on_subscription_added(IDeviceManager::RunLoopEvent* subscriber, int delivery) override;

private:
    struct QueuedEvent {
        RunLoopClosure closure;
        void* subscriber;
        const void* set;
        std::string name;
    };
    // A delivery that a pumping thread has taken out of the queue and runs.
    struct RunningEvent {
        void* subscriber;
        const void* set;
        std::thread::id thread;
    };
    // Hardware devices are the same device when their paths are: a removal
    // may bring a new object for a known device.
    struct ByPath {
        bool operator()(const std::shared_ptr<IHardwareDevice>& a,
                        const std::shared_ptr<IHardwareDevice>& b) const;
    };
    using DeviceList = std::map<std::shared_ptr<IHardwareDevice>, std::shared_ptr<IDevice>, ByPath>;
    using BusSet = std::set<std::shared_ptr<IHardwareBus>>;

    bool lazyInitializeHardwareBusses();
    // The platform bus at the bottom of the stack.
    virtual std::shared_ptr<IHardwareBus> makePlatformBus();
    bool passes_suppression(const std::shared_ptr<IHardwareDevice>& hw);
    std::shared_ptr<Device> as_device(const std::shared_ptr<IDevice>& device);

    static bool matches(void* subscriber, const void* set, void* record_subscriber,
                        const void* record_set);
    void produce_run_loop_event();
    void drop_runloop_events(void* subscriber, const void* set, bool wait);
    // Waits until no other thread runs a delivery that matches. Needs
    // `queue_mutex` held by `lock`.
    void wait_for_running(std::unique_lock<std::mutex>& lock, void* subscriber, const void* set);

    bool hw_started = false;  // guarded by stack_mutex
    // Devices of every thread ask for the id; the first to find it unset
    // draws it, and the others must see the same draw.
    std::atomic<unsigned> manager_swid{0};
    std::atomic<bool> active{true};
    std::string persistent_dir;  // guarded by list_mutex
    std::atomic<bool> shutting_down{false};
    std::list<QueuedEvent> event_queue;
    std::mutex queue_mutex;
    // Pumps asked of the host and not yet made. Late pumps find an empty
    // queue, which is harmless, so it is allowed to go below zero.
    std::int64_t triggers_in_flight = 0;
    std::vector<RunningEvent> running;
    std::condition_variable running_done;

    DeviceList deviceList;  // guarded by list_mutex
    BusSet busses;          // guarded by list_mutex
    BusSet top_busses;      // guarded by list_mutex
    std::array<std::atomic<bool>, 8> config_items{};
    std::shared_ptr<ITimer> addbus_retry_timer;  // made at the start, guarded by stack_mutex
    unsigned addbus_retry_count = 0;             // guarded by list_mutex
    BusSet addbus_retry_set;                     // guarded by list_mutex
    std::once_flag active_subscription;

    std::mutex stack_mutex;
    std::mutex list_mutex;
    // Held through onPlug and onUnplug, arrival and removal events included;
    // recursive, since removing a receiver unplugs its children.
    std::recursive_mutex plug_mutex;
};

}  // namespace devio
