#pragma once

#include <functional>
#include <string>

namespace devio {

// The queue of deliveries that wait for a host's thread (delivery 0): all
// the event fabric knows of the rest of the library. Producers queue into
// it; producers and subscribers that leave take their deliveries out again.
// The library's facade implements it and passes each call to the manager's
// queue while there is a manager. Any thread may call it, also while the
// process exits.
class IRunLoopQueue {
public:
    // What the run loop queues: a closure that delivers one event to one
    // subscriber. `subscriber` and `set` only identify the record, so that a
    // subscriber that leaves can take its pending events with it.
    using RunLoopClosure = std::function<void()>;

    // Queues one delivery for the host's thread and tells the host to pump.
    // `name` is the event's name in the log of queued events.
    virtual void enqueue_event_for_runloop(RunLoopClosure closure, void* subscriber,
                                           const void* set, std::string name) = 0;
    // Drops the queued deliveries of one subscriber for one producer's set;
    // with a null set, all of the subscriber's; with both null, all.
    // After it returns, no delivery of those reaches the subscriber from
    // another thread: it waits for one that a pumping thread is running.
    virtual void remove_runloop_events(void* subscriber, const void* set) = 0;
    // The same without that wait, for a caller inside a delivery of the
    // producer whose set it names: the running delivery may be waiting to
    // produce on that very producer, so waiting for it would never end.
    virtual void discard_runloop_events(void* subscriber, const void* set) = 0;

protected:
    ~IRunLoopQueue() = default;
};

// The process's queue. Bound at link time to the library's facade, which
// lives from before the first static constructor until after the last
// static destructor.
IRunLoopQueue& runloop_queue();

}  // namespace devio
