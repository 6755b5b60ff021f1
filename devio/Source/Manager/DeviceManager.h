#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Base/Producer.h"
#include "Manager/IDeviceManager.h"

namespace devio {

// The implementation behind `CDevio`. It owns the run-loop queue: the
// library has no thread of its own for delivery 0, so it queues each such
// delivery and asks the host, through RunLoopEvent, to lend it a thread.
//
// Threads: producers of any thread enqueue; the host's pumping thread (or
// threads) run `call_event_from_runloop`; subscribers that leave remove their
// events from whatever thread they leave on. `queue_mutex` guards the queue,
// the trigger counter and the list of running deliveries, and is never held
// while a closure runs or an event is produced.
//
// Lock order: a producer's mutex, then `queue_mutex`. The RunLoopEvent
// producer's mutex is taken only after `queue_mutex` was released.
class DeviceManager : public IDeviceManager,
                      public Producer<IDeviceManager::UnreportedError>,
                      public Producer<IDeviceManager::RunLoopEvent>,
                      public std::enable_shared_from_this<DeviceManager> {
public:
    DeviceManager();
    ~DeviceManager() override;

    void swid(unsigned value) override;
    unsigned swid() override;
    bool is_active() override { return active.load(); }
    bool config_default(unsigned item, bool* out) override;
    bool config_get(unsigned item, bool* out) override;
    void report_unreported_error(const char* where) override;
    void enqueue_event_for_runloop(RunLoopClosure closure, void* subscriber, const void* set,
                                   std::string name) override;
    void call_event_from_runloop() override;
    void remove_runloop_events(void* subscriber, const void* set) override;
    void discard_runloop_events(void* subscriber, const void* set) override;

    // A RunLoopEvent subscriber with delivery 0 would ask for a pump through
    // the very queue it is meant to pump, without end; it is refused.
    using Producer<IDeviceManager::UnreportedError>::subscribe;
    bool subscribe(IDeviceManager::RunLoopEvent* subscriber, int delivery) override;

protected:
    // A host that subscribes to RunLoopEvent late is told about every event
    // that is already waiting.
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

    static bool matches(void* subscriber, const void* set, void* record_subscriber,
                        const void* record_set);
    void produce_run_loop_event();
    void drop_runloop_events(void* subscriber, const void* set, bool wait);
    // Waits until no other thread runs a delivery that matches. Needs
    // `queue_mutex` held by `lock`.
    void wait_for_running(std::unique_lock<std::mutex>& lock, void* subscriber, const void* set);

    // Devices of every thread ask for the id; the first to find it unset
    // draws it, and the others must see the same draw.
    std::atomic<unsigned> manager_swid{0};
    std::atomic<bool> active{true};
    std::atomic<bool> shutting_down{false};
    std::array<std::atomic<bool>, 8> config_items{};
    std::list<QueuedEvent> event_queue;
    std::mutex queue_mutex;
    // Pumps asked of the host and not yet made. Late pumps find an empty
    // queue, which is harmless, so it is allowed to go below zero.
    std::int64_t triggers_in_flight = 0;
    std::vector<RunningEvent> running;
    std::condition_variable running_done;
};

}  // namespace devio
