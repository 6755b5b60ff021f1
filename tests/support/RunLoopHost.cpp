#include "RunLoopHost.h"

#include "Manager/CDevio.h"

namespace devio {

RunLoopHost::~RunLoopHost() {
    stop();
}

bool RunLoopHost::start() {
    if (started) return true;
    stopping = false;
    thread = std::thread([this] { run(); });
    started = true;
    // Subscribing after the thread runs: a late subscription books one pump
    // per event already waiting, at once.
    if (!subscribe(cdevio.manager(), DeliveryDirect)) {
        stop();
        return false;
    }
    return true;
}

void RunLoopHost::stop() {
    if (!started) return;
    if (auto manager = cdevio.manager()) unsubscribe(manager);
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    wake.notify_all();
    thread.join();
    std::lock_guard<std::mutex> lock(mutex);
    booked = 0;
    started = false;
    idle.notify_all();
}

void RunLoopHost::onRunLoopEvent() {
    std::lock_guard<std::mutex> lock(mutex);
    ++booked;
    wake.notify_one();
}

void RunLoopHost::run() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        wake.wait(lock, [this] { return stopping || booked > 0; });
        if (stopping) return;
        --booked;
        pumping = true;
        lock.unlock();
        cdevio.call_event_from_runloop();
        lock.lock();
        pumping = false;
        ++made;
        if (booked == 0) idle.notify_all();
    }
}

bool RunLoopHost::wait_idle(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    return idle.wait_for(lock, timeout, [this] { return booked == 0 && !pumping; });
}

std::size_t RunLoopHost::pumps_made() {
    std::lock_guard<std::mutex> lock(mutex);
    return made;
}

}  // namespace devio
