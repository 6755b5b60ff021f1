#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>

#include "Base/Subscriber.h"
#include "Manager/IDeviceManager.h"

namespace devio {

// A host that lends the library one thread for delivery 0. It subscribes to
// the manager's RunLoopEvent directly; each event, on whatever thread it is
// produced, books one pump, and the host's own thread calls
// `cdevio.call_event_from_runloop` once per booked pump.
//
// Threads: `onRunLoopEvent` from any thread (under the RunLoopEvent
// producer's mutex); `start`, `stop`, `wait_idle` from the owner's thread;
// the pump thread runs the library's closures. `mutex` guards the counters
// and is never held while pumping. Lock order: the producer's mutex, then
// `mutex`.
class RunLoopHost : public Subscriber<IDeviceManager::RunLoopEvent> {
public:
    RunLoopHost() = default;
    ~RunLoopHost() override;

    // Starts the pump thread and subscribes; false if the manager refused.
    bool start();
    // Unsubscribes, then ends the pump thread. Pumps booked and not yet made
    // are dropped; their events stay queued for the next host.
    void stop();

    // Waits until no pump is booked or running.
    bool wait_idle(std::chrono::milliseconds timeout);
    std::thread::id thread_id() const { return thread.get_id(); }
    std::size_t pumps_made();

    void onRunLoopEvent() override;

private:
    void run();

    std::mutex mutex;
    std::condition_variable wake;
    std::condition_variable idle;
    std::size_t booked = 0;
    std::size_t made = 0;
    bool pumping = false;
    bool stopping = false;
    bool started = false;
    std::thread thread;
};

}  // namespace devio
