// The run-loop queue of DeviceManager: deliveries of mode 0 wait here until
// the host lends a thread to run them.

#include <algorithm>
#include <exception>
#include <utility>

#include "Base/ErrorRecord.h"
#include "Manager/DeviceManager.h"
#include "xlog.h"

namespace devio {

namespace {
const char* const kRunLoopName = event_names::DeviceManagerRunLoopEvent.onRunLoopEvent;
}  // namespace

void DeviceManager::produce_run_loop_event() {
    Producer<IDeviceManager::RunLoopEvent>::produce(
        [](IDeviceManager::RunLoopEvent* subscriber) { subscriber->onRunLoopEvent(); },
        kRunLoopName);
}

bool DeviceManager::subscribe(IDeviceManager::RunLoopEvent* subscriber, int delivery) {
    if (delivery == DeliveryRunLoop) {
        xLog("DeviceManager", 0, "devio::DeviceManager::subscribe",
             "-api- IDeviceManager::RunLoopEvent cannot be delivered through the run loop");
        set_error(InternalError, "RunLoopEvent needs delivery 1");
        return false;
    }
    return Producer<IDeviceManager::RunLoopEvent>::subscribe(subscriber, delivery);
}

void DeviceManager::on_subscription_added(IDeviceManager::RunLoopEvent* /*subscriber*/,
                                          int delivery) {
    xLog("DeviceManager", 2, "devio::DeviceManager::on_subscription_added",
         "-api- IDeviceManager::RunLoopEvent, delivery=%d", delivery);
    std::size_t waiting;
    {
        std::lock_guard<std::mutex> lock(queue_mutex);
        waiting = event_queue.size();
    }
    if (waiting == 0) return;
    xLog("DeviceManager", 1, "devio::DeviceManager::on_subscription_added",
         "Subscribed to run loop after %d events are already in the queue... delivering events now",
         static_cast<int>(waiting));
    // One pump per waiting event; each pump runs one. The triggers of the
    // original enqueues went nowhere, so they are not counted again.
    for (std::size_t i = 0; i < waiting; ++i) produce_run_loop_event();
    xLog("DeviceManager", 2, "devio::DeviceManager::on_subscription_added",
         "All pre-existing events have been delivered");
}

void DeviceManager::enqueue_event_for_runloop(RunLoopClosure closure, void* subscriber,
                                              const void* set, std::string name) {
    if (shutting_down.load()) return;
    {
        std::lock_guard<std::mutex> lock(queue_mutex);
        xLog("DeviceManager", 4, "devio::DeviceManager::enqueue_event_for_runloop",
             "DeviceManager::enqueue_event_for_runloop %s", name.c_str());
        event_queue.push_back(QueuedEvent{std::move(closure), subscriber, set, std::move(name)});
        ++triggers_in_flight;
    }
    produce_run_loop_event();
}

void DeviceManager::call_event_from_runloop() {
    QueuedEvent event;
    bool more;
    {
        std::lock_guard<std::mutex> lock(queue_mutex);
        --triggers_in_flight;
        xLog("DeviceManager", 4, "devio::DeviceManager::call_event_from_runloop",
             "DeviceManager::call_event_from_runloop now %d triggers are in-flight",
             static_cast<int>(triggers_in_flight));
        if (event_queue.empty()) return;
        event = std::move(event_queue.front());
        event_queue.pop_front();
        more = !event_queue.empty();
        if (more) ++triggers_in_flight;
        running.push_back(RunningEvent{event.subscriber, event.set, std::this_thread::get_id()});
    }
    // Ask for the next pump before running this one, so that a slow handler
    // does not hold up the chain on hosts that pump from several threads.
    if (more) produce_run_loop_event();
    try {
        event.closure();
    } catch (const std::exception& e) {
        // No exception crosses into the host's loop.
        xLog("DeviceManager", 0, "devio::DeviceManager::call_event_from_runloop", "%s threw: %s",
             event.name.c_str(), e.what());
    } catch (...) {
        xLog("DeviceManager", 0, "devio::DeviceManager::call_event_from_runloop", "%s threw",
             event.name.c_str());
    }
    // The closure holds copies of the event's arguments; they die here,
    // outside the lock, since their destructors may reach the queue again.
    event.closure = nullptr;
    std::lock_guard<std::mutex> lock(queue_mutex);
    const auto self = std::this_thread::get_id();
    auto mine = std::find_if(running.begin(), running.end(), [&](const RunningEvent& r) {
        return r.thread == self && r.subscriber == event.subscriber && r.set == event.set;
    });
    if (mine != running.end()) running.erase(mine);
    running_done.notify_all();
}

bool DeviceManager::matches(void* subscriber, const void* set, void* record_subscriber,
                            const void* record_set) {
    // A subscriber without a set is one that is dying: all of its events go,
    // whichever producer (live or dead) queued them.
    if (set == nullptr && subscriber != nullptr) return record_subscriber == subscriber;
    return record_subscriber == subscriber && record_set == set;
}

void DeviceManager::wait_for_running(std::unique_lock<std::mutex>& lock, void* subscriber,
                                     const void* set) {
    const auto self = std::this_thread::get_id();
    running_done.wait(lock, [&] {
        return std::none_of(running.begin(), running.end(), [&](const RunningEvent& r) {
            return r.thread != self && matches(subscriber, set, r.subscriber, r.set);
        });
    });
}

void DeviceManager::remove_runloop_events(void* subscriber, const void* set) {
    drop_runloop_events(subscriber, set, true);
}

void DeviceManager::discard_runloop_events(void* subscriber, const void* set) {
    drop_runloop_events(subscriber, set, false);
}

void DeviceManager::drop_runloop_events(void* subscriber, const void* set, bool wait) {
    xLog("DeviceManager", 2, "devio::DeviceManager::remove_runloop_events",
         "DeviceManager::remove_runloop_events");
    std::list<QueuedEvent> discarded;
    {
        std::unique_lock<std::mutex> lock(queue_mutex);
        if (subscriber == nullptr && set == nullptr) {
            xLog("DeviceManager", 2, "devio::DeviceManager::remove_runloop_events",
                 "DeviceManager::remove_runloop_events discarding all: %d events",
                 static_cast<int>(event_queue.size()));
            for (const auto& event : event_queue) {
                xLog("DeviceManager", 2, "devio::DeviceManager::remove_runloop_events",
                     "DeviceManager::remove_runloop_events discarding all: %s", event.name.c_str());
            }
            discarded.swap(event_queue);
        } else {
            for (auto it = event_queue.begin(); it != event_queue.end();) {
                auto next = std::next(it);
                if (matches(subscriber, set, it->subscriber, it->set)) {
                    xLog("DeviceManager", 2, "devio::DeviceManager::remove_runloop_events",
                         "DeviceManager::remove_runloop_events discarding %s", it->name.c_str());
                    discarded.splice(discarded.end(), event_queue, it);
                }
                it = next;
            }
            // A delivery to this subscriber may be running on a pumping
            // thread right now; the subscriber may go once it returns.
            if (wait) wait_for_running(lock, subscriber, set);
        }
    }
    // Dropped closures die outside the lock, like run ones.
}

}  // namespace devio
