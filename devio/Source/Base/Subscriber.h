#pragma once

#include <memory>
#include <set>
#include <string>

#include "Base/ErrorRecord.h"
#include "Base/Producer.h"

namespace devio {

// The receiving half of one event type `T`: a base class of every class that
// receives T, one base per event type. It remembers the producers it joined
// by weak reference, so either side may die first: a subscriber leaves every
// live producer when it is destroyed, and a dead producer is skipped.
//
// The set of producers has no lock: one subscriber subscribes, unsubscribes
// and dies on one thread at a time. The owner must also make sure that no
// event of another thread is running in it when it is destroyed (unsubscribe
// first, or destroy it on the thread that delivers to it).
template <class T>
class Subscriber : public T {
public:
    using Interface = typename T::Interface;

    Subscriber() = default;
    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;

    virtual ~Subscriber() {
        for (const auto& weak : producers) {
            if (auto producer = weak.lock()) producer->unsubscribe(self());
        }
        // A producer that died first can still have events queued for us;
        // they would reach a dead object.
        runloop_queue().remove_runloop_events(self(), nullptr);
    }

    // Joins the producer behind `object`. `unused` is kept for callers that
    // pass a name; it has no effect.
    virtual bool subscribe(const std::shared_ptr<Interface>& object, int delivery,
                           const std::string& unused = std::string()) {
        (void)unused;
        auto producer = std::dynamic_pointer_cast<Producer<T>>(object);
        if (!producer) {
            set_error(BadPointerCast, "dynamic pointer cast in subscribe failed", 0);
            return false;
        }
        Weak weak = producer;
        if (producers.count(weak) != 0) return true;
        if (!producer->subscribe(self(), delivery)) return false;
        producers.insert(weak);
        return true;
    }

    virtual void unsubscribe(const std::shared_ptr<Interface>& object) {
        auto producer = std::dynamic_pointer_cast<Producer<T>>(object);
        if (!producer) return;
        auto found = producers.find(Weak(producer));
        if (found == producers.end()) return;
        producer->unsubscribe(self());
        producers.erase(found);
    }

private:
    using Weak = std::weak_ptr<Producer<T>>;

    T* self() { return this; }

    std::set<Weak, std::owner_less<Weak>> producers;
};

}  // namespace devio
