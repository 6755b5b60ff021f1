#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace devio_sim {

// The one thread that serves a simulated machine: it waits on the sockets of
// all nodes, runs timers (late answers), and runs work that other threads
// hand it. Everything that simulated hardware owns is touched on this thread
// only, so the hardware itself needs no locks.
//
// `run` may be called from any thread; `watch`, `unwatch`, `setEvents` and
// `after` only from the serving thread. `mutex_` guards the hand-over queue
// and nothing else.
class EventLoop {
public:
    using Handler = std::function<void(short revents)>;

    EventLoop();
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // Runs `fn` on the serving thread and waits until it has run. Called on
    // the serving thread itself, it runs `fn` at once.
    void run(const std::function<void()>& fn);

    void watch(int fd, short events, Handler handler);
    void setEvents(int fd, short events);
    void unwatch(int fd);
    void after(int delay_ms, std::function<void()> fn);

private:
    using Clock = std::chrono::steady_clock;
    struct Watch {
        short events;
        Handler handler;
    };

    void serve();
    int nextTimeoutMs() const;
    void runDueTimers();
    void runHandedOver();

    int wake_fd_ = -1;
    std::thread::id serving_id_;
    std::mutex mutex_;
    std::deque<std::function<void()>> handed_over_;                   // guarded by mutex_
    bool stopping_ = false;                                           // guarded by mutex_
    std::map<int, Watch> watches_;                                    // serving thread only
    std::multimap<Clock::time_point, std::function<void()>> timers_;  // serving thread only
    std::thread thread_;
};

}  // namespace devio_sim
