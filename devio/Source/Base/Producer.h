#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "Base/RunLoopQueue.h"

namespace devio {

// Delivery modes of a subscription.
enum Delivery : int {
    DeliveryRunLoop = 0,  // queued, and run later on the host's pumping thread
    DeliveryDirect = 1,   // called at once on the producing thread
};

// The sending half of one event type `T`: a base class of every class that
// produces T. Any thread may subscribe, unsubscribe or produce.
//
// One recursive mutex guards both subscriber sets and is held for the whole
// of a delivery, so a handler may produce again or (un)subscribe others on
// the same producer, and an unsubscribe from another thread waits for a
// running direct delivery to end. A direct handler must therefore never wait
// for another thread that produces on the same producer.
//
// Lock order: this producer's mutex, then the run loop's queue mutex (taken
// and released inside `enqueue_event_for_runloop`).
template <class T>
class Producer {
public:
    using Call = std::function<void(T*)>;

    Producer() = default;
    Producer(const Producer&) = delete;
    Producer& operator=(const Producer&) = delete;
    // Tells no subscriber: they hold only weak references and find out when
    // they next try to reach this producer. Events already queued for the run
    // loop stay queued; they no longer need the producer.
    virtual ~Producer() = default;

    // Adds `subscriber` to the set that `delivery` names; an unknown delivery
    // is accepted and ignored. A subscriber may stand in both sets, and then
    // receives each event twice, the direct one first. Returns false, with
    // the reason in the thread's error record, when `on_subscribe` refuses.
    virtual bool subscribe(T* subscriber, int delivery) {
        std::set<T*>* set = set_for(delivery);
        if (set == nullptr) return true;
        {
            std::lock_guard<std::recursive_mutex> lock(mutex);
            if (set->count(subscriber) != 0) return true;
        }
        // Without the mutex: a refusing hook may start whole subsystems.
        if (!on_subscribe(subscriber)) return false;
        std::lock_guard<std::recursive_mutex> lock(mutex);
        set->insert(subscriber);
        on_subscription_added(subscriber, delivery);
        return true;
    }

    // Removes `subscriber` from both sets and drops the events queued for it
    // by this producer. After it returns, no delivery of this producer
    // reaches the subscriber, except one that the calling thread itself is
    // running. To get there it waits for a run-loop delivery to the
    // subscriber that a pumping thread is running, so the caller must not
    // hold a lock that such a handler takes. A caller inside a delivery of
    // this producer (a direct handler unsubscribing another subscriber) does
    // not wait: the running handler may be about to produce here, which the
    // caller's delivery blocks; such a handler may still be finishing.
    virtual void unsubscribe(T* subscriber) {
        if (erase(direct_subscribers, subscriber)) on_subscription_removed(subscriber);
        if (erase(runloop_subscribers, subscriber)) {
            on_subscription_removed(subscriber);
            if (delivering_here()) {
                runloop_queue().discard_runloop_events(subscriber, &runloop_subscribers);
            } else {
                runloop_queue().remove_runloop_events(subscriber, &runloop_subscribers);
            }
        }
    }

    // Calls `call` with every direct subscriber, in address order, then
    // queues one closure per run-loop subscriber. `call` must hold copies of
    // the event's arguments: queued closures outlive this call. `name` is the
    // event's name in the log of queued events.
    virtual void produce(const Call& call, const std::string& name) {
        std::lock_guard<std::recursive_mutex> lock(mutex);
        const DeliveryMark mark(*this);
        walk(direct_subscribers, [&](T* subscriber) { call(subscriber); });
        walk(runloop_subscribers, [&](T* subscriber) {
            runloop_queue().enqueue_event_for_runloop([call, subscriber] { call(subscriber); },
                                                      subscriber, &runloop_subscribers, name);
        });
    }

    // Both sets together.
    virtual std::size_t subscriber_count() {
        std::lock_guard<std::recursive_mutex> lock(mutex);
        return direct_subscribers.size() + runloop_subscribers.size();
    }

protected:
    // May refuse a subscription by returning false with the reason in the
    // thread's error record. Called without the mutex.
    virtual bool on_subscribe(T* /*subscriber*/) { return true; }
    // Called under the mutex, right after the subscriber was added.
    virtual void on_subscription_added(T* /*subscriber*/, int /*delivery*/) {}
    // Called without the mutex, once per set the subscriber left.
    virtual void on_subscription_removed(T* /*subscriber*/) {}

private:
    std::set<T*>* set_for(int delivery) {
        if (delivery == DeliveryDirect) return &direct_subscribers;
        if (delivery == DeliveryRunLoop) return &runloop_subscribers;
        return nullptr;
    }

    // Marks the thread that delivers, for as long as it does; deliveries on
    // one thread may nest.
    struct DeliveryMark {
        explicit DeliveryMark(Producer& p) : producer(p) {
            if (producer.delivery_depth++ == 0) producer.delivering = std::this_thread::get_id();
        }
        ~DeliveryMark() {
            if (--producer.delivery_depth == 0) producer.delivering = std::thread::id();
        }
        Producer& producer;
    };

    bool delivering_here() {
        std::lock_guard<std::recursive_mutex> lock(mutex);
        return delivery_depth > 0 && delivering == std::this_thread::get_id();
    }

    bool erase(std::set<T*>& set, T* subscriber) {
        std::lock_guard<std::recursive_mutex> lock(mutex);
        return set.erase(subscriber) != 0;
    }

    // Walks `set` in place, in address order. Each step looks up the next
    // address afresh, so a handler that (un)subscribes on this producer while
    // being called - itself included - cannot leave the walk on a dead node.
    template <class Visit>
    static void walk(std::set<T*>& set, Visit&& visit) {
        auto it = set.begin();
        while (it != set.end()) {
            T* current = *it;
            visit(current);
            it = set.upper_bound(current);
        }
    }

    std::set<T*> direct_subscribers;
    std::set<T*> runloop_subscribers;
    std::recursive_mutex mutex;
    int delivery_depth = 0;      // guarded by mutex
    std::thread::id delivering;  // guarded by mutex
};

}  // namespace devio
