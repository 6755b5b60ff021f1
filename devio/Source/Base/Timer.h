#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "Base/ITimer.h"
#include "Base/Producer.h"

namespace devio {

// A one-shot timer run by one thread of its own for each arming. The
// interval is waited out in two halves; `reset` re-arms only once the first
// half is over, so a caller may kick the timer on every event without a
// thread being torn down each time.
//
// Threads: `start`, `reset` and `stop` come from any thread, also from
// several at once (`control_mutex` serialises them and guards the thread
// object; the timer's thread never takes it), but never from the timer's own
// thread: a direct handler of `onTimerEvent` must not re-arm or stop it
// (such calls are refused and logged as assertion failures).
// Owners that do that subscribe with delivery 0, so their handlers run on the
// host's thread.
//
// `mutex` guards `cancelled` and is held by the timer thread for its whole
// body except while waiting, including while it produces `onTimerEvent`; so
// `stop` returns only after a running production has finished.
//
// Always made through a shared pointer; the owner destroys it from a thread
// other than its own, since destruction joins.
class Timer : public ITimer,
              public Producer<ITimer::TimerEvent>,
              public std::enable_shared_from_this<Timer> {
public:
    explicit Timer(int id);
    ~Timer() override;

    bool reset(int milliseconds) override;
    bool start(int milliseconds) override;
    bool stop() override;

private:
    void body(int milliseconds);
    bool start_locked(int milliseconds);
    bool stop_locked();
    // True, with an assertion logged, when called from this timer's own
    // thread, that is from a direct handler of its event.
    bool on_own_thread(const char* call) const;
    // Waits up to `milliseconds` or until cancelled; true when cancelled.
    bool wait_cancelled(std::unique_lock<std::mutex>& lock, int milliseconds);

    std::unique_ptr<std::thread> thread;  // guarded by control_mutex
    std::mutex control_mutex;
    bool cancelled = false;
    std::condition_variable condition;
    std::mutex mutex;
    const int id;
    std::atomic<bool> past_half{false};
};

}  // namespace devio
