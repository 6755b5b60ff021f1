#pragma once

#include <atomic>

namespace devio {

// The number of live objects of one class, which its constructor and
// destructor log ("Number of instances now: %d"), so that a log shows a bus
// or device that outlives its use. `Class` only tells the counters apart.
template <class Class>
class InstanceCount {
public:
    static int added() { return ++live(); }
    static int removed() { return --live(); }

private:
    static std::atomic<int>& live() {
        static std::atomic<int> count{0};
        return count;
    }
};

}  // namespace devio
