#include "Timer.h"

#include <chrono>

#include "xlog.h"

namespace devio {

Timer::Timer(int id_) : id(id_) {}

Timer::~Timer() { stop(); }

bool Timer::start(int milliseconds) {
    if (thread && thread->get_id() == std::this_thread::get_id()) {
        // Joining ourselves would hang; the arming is refused instead.
        xAssert(false, "Timer::start from the timer's own thread", __FILE__, __LINE__);
        return false;
    }
    stop();
    past_half.store(false);
    {
        std::lock_guard<std::mutex> lock(mutex);
        cancelled = false;
    }
    thread = std::make_unique<std::thread>([this, milliseconds] { body(milliseconds); });
    return true;
}

bool Timer::reset(int milliseconds) {
    // In the first half the running interval stands: the kick is early
    // enough that restarting would change little and cost a thread.
    if (thread && !past_half.load()) return true;
    return start(milliseconds);
}

bool Timer::stop() {
    if (!thread) return true;
    if (thread->get_id() == std::this_thread::get_id()) {
        // A direct handler of our own event: the body already holds the mutex
        // and ends right after the production, so there is nothing to cancel.
        xAssert(false, "Timer::stop from the timer's own thread", __FILE__, __LINE__);
        return true;
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        cancelled = true;
    }
    condition.notify_all();
    thread->join();
    thread.reset();
    return true;
}

bool Timer::wait_cancelled(std::unique_lock<std::mutex>& lock, int milliseconds) {
    // A deadline on the steady clock: a change of the wall clock neither
    // shortens nor stretches an interval.
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    condition.wait_until(lock, deadline, [this] { return cancelled; });
    return cancelled;
}

void Timer::body(int milliseconds) {
    std::unique_lock<std::mutex> lock(mutex);
    const int half = milliseconds / 2;
    const bool cancelled_early = wait_cancelled(lock, half);
    past_half.store(true);
    if (cancelled_early) return;
    if (wait_cancelled(lock, half)) return;
    const int timer_id = id;
    Producer<ITimer::TimerEvent>::produce(
        [timer_id](ITimer::TimerEvent* subscriber) { subscriber->onTimerEvent(timer_id); },
        event_names::TimerTimerEvent.onTimerEvent);
}

}  // namespace devio
