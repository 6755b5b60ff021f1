#include "EventLoop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <future>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace devio_sim {

EventLoop::EventLoop() {
    wake_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    std::promise<void> started;
    thread_ = std::thread([this, &started] {
        serving_id_ = std::this_thread::get_id();
        started.set_value();
        serve();
    });
    started.get_future().wait();
}

EventLoop::~EventLoop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto n = ::write(wake_fd_, &one, sizeof one);
    thread_.join();
    ::close(wake_fd_);
}

void EventLoop::run(const std::function<void()>& fn) {
    if (std::this_thread::get_id() == serving_id_) {
        fn();
        return;
    }
    std::promise<void> done;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) throw std::logic_error("simulated machine has stopped");
        handed_over_.push_back([&] {
            try {
                fn();
                done.set_value();
            } catch (...) {
                done.set_exception(std::current_exception());
            }
        });
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto n = ::write(wake_fd_, &one, sizeof one);
    done.get_future().get();
}

void EventLoop::watch(int fd, short events, Handler handler) {
    watches_[fd] = Watch{events, std::move(handler)};
}

void EventLoop::setEvents(int fd, short events) {
    if (auto it = watches_.find(fd); it != watches_.end()) it->second.events = events;
}

void EventLoop::unwatch(int fd) {
    watches_.erase(fd);
}

void EventLoop::after(int delay_ms, std::function<void()> fn) {
    timers_.emplace(Clock::now() + std::chrono::milliseconds(delay_ms), std::move(fn));
}

int EventLoop::nextTimeoutMs() const {
    if (timers_.empty()) return -1;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(timers_.begin()->first -
                                                                            Clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count()) + 1;
}

void EventLoop::runDueTimers() {
    const auto now = Clock::now();
    while (!timers_.empty() && timers_.begin()->first <= now) {
        auto fn = std::move(timers_.begin()->second);
        timers_.erase(timers_.begin());
        fn();
    }
}

void EventLoop::runHandedOver() {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto n = ::read(wake_fd_, &count, sizeof count);
    std::deque<std::function<void()>> work;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        work.swap(handed_over_);
    }
    for (auto& fn : work) fn();
}

void EventLoop::serve() {
    std::vector<pollfd> fds;
    for (;;) {
        fds.assign(1, pollfd{wake_fd_, POLLIN, 0});
        for (const auto& [fd, w] : watches_) fds.push_back(pollfd{fd, w.events, 0});
        const int n = ::poll(fds.data(), fds.size(), nextTimeoutMs());
        if (n < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "poll");
        if (fds[0].revents & POLLIN) {
            runHandedOver();
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) return;
        }
        runDueTimers();
        for (std::size_t i = 1; n > 0 && i < fds.size(); ++i) {
            if (fds[i].revents == 0) continue;
            // A handler may have closed this descriptor, or another one.
            const auto it = watches_.find(fds[i].fd);
            if (it == watches_.end()) continue;
            Handler handler = it->second.handler;
            handler(fds[i].revents);
        }
    }
}

}  // namespace devio_sim
