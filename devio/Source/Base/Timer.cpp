#include "Base/Timer.h"

#include <chrono>

#include "xlog.h"

namespace devio {

namespace {
// The timer whose body runs on this thread, if any. The thread object field
// cannot tell: it is written by the arming thread while the body may already
// run.
thread_local const Timer* own_timer = nullptr;
}  // namespace

Timer::Timer(int id_) : id(id_) {}

Timer::~Timer() {
    stop();
}

bool Timer::on_own_thread(const char* call) const {
    if (own_timer != this) return false;
    xAssert(false, call, __FILE__, __LINE__);
    return true;
}

bool Timer::start(int milliseconds) {
    // Re-arming joins the running thread, which would hang here.
    if (on_own_thread("Timer::start from the timer's own thread")) return false;
    std::lock_guard<std::mutex> control(control_mutex);
    return start_locked(milliseconds);
}

bool Timer::start_locked(int milliseconds) {
    stop_locked();
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
    if (on_own_thread("Timer::reset from the timer's own thread")) return false;
    std::lock_guard<std::mutex> control(control_mutex);
    if (thread && !past_half.load()) return true;
    return start_locked(milliseconds);
}

bool Timer::stop() {
    // A direct handler of our own event: the body ends right after the
    // production, so there is nothing to cancel, and joining would hang.
    if (on_own_thread("Timer::stop from the timer's own thread")) return true;
    std::lock_guard<std::mutex> control(control_mutex);
    return stop_locked();
}

bool Timer::stop_locked() {
    if (!thread) return true;
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
    own_timer = this;
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
