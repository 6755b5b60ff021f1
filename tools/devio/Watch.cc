#include "Watch.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <map>

#include "Base/Subscriber.h"
#include "ErrorText.h"
#include "Manager/CDevio.h"
#include "Output.h"
#include "Render.h"
#include "Session.h"
#include "WatchedDevice.h"

namespace devio_tool {

namespace {

// Wakes the main thread for each run-loop event. The library produces
// `onRunLoopEvent` on its own threads, so the handler only counts it into an
// eventfd; the main thread makes the calls.
class Pump : public devio::Subscriber<devio::IDeviceManager::RunLoopEvent> {
public:
    explicit Pump(int fd) : fd_(fd) {}
    void onRunLoopEvent() override {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto n = ::write(fd_, &one, sizeof one);
    }

private:
    int fd_;
};

// The devices being watched, by the object the library gave us: a device
// that goes and comes back is a new object, and is announced again.
class Watcher : public devio::Subscriber<devio::IDeviceManager::ArrivalRemoval> {
public:
    explicit Watcher(bool json) : json_(json) {}

    void add(const std::shared_ptr<devio::IDevice>& device) {
        if (!device || watched_.count(device.get()) != 0) return;
        auto w = std::make_unique<WatchedDevice>(device, [this](nlohmann::json e) { emit(e); });
        WatchedDevice& added = *w;
        watched_.emplace(device.get(), std::move(w));
        added.announce();
    }

    void onDeviceArrival(const std::shared_ptr<devio::IDevice>& device) override { add(device); }

    void onDeviceRemoval(const std::shared_ptr<devio::IDevice>& device) override {
        const auto it = watched_.find(device.get());
        if (it == watched_.end()) return;
        it->second->removed();
        watched_.erase(it);
    }

    void clear() { watched_.clear(); }
    bool broken() const { return broken_; }

private:
    void emit(const nlohmann::json& event) {
        if (!print(json_ ? jsonLine(event) : renderEvent(event))) broken_ = true;
    }

    bool json_;
    bool broken_ = false;
    std::map<devio::IDevice*, std::unique_ptr<WatchedDevice>> watched_;
};

}  // namespace

int watch(const Options& options) {
    // Blocked before the library starts its threads, which inherit the mask,
    // so that the signals reach only the signalfd. A shell starts background
    // jobs with SIGINT ignored, and an ignored signal never reaches a
    // signalfd: watch is meant to be interrupted, so it takes them back.
    ::signal(SIGINT, SIG_DFL);
    ::signal(SIGTERM, SIG_DFL);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const int signal_fd = ::signalfd(-1, &signals, SFD_CLOEXEC);
    const int wake_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (signal_fd < 0 || wake_fd < 0) {
        std::cerr << "devio: cannot watch: " << std::strerror(errno) << "\n";
        return 1;
    }

    configureLibrary(options);
    Pump pump(wake_fd);
    Watcher watcher(options.json);
    std::vector<std::shared_ptr<devio::IDevice>> present;
    if (!pump.subscribe(devio::cdevio.manager(), devio::DeliveryDirect) ||
        !watcher.subscribe(devio::cdevio.manager(), devio::DeliveryRunLoop) ||
        !presentDevices(present)) {
        std::cerr << "devio: cannot start: " << describe(lastFailure()) << "\n";
        return 1;
    }
    for (const auto& device : present) watcher.add(device);

    while (!watcher.broken()) {
        pollfd fds[2] = {{signal_fd, POLLIN, 0}, {wake_fd, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[0].revents & POLLIN) break;
        std::uint64_t pending = 0;
        if (::read(wake_fd, &pending, sizeof pending) != sizeof pending) continue;
        for (std::uint64_t i = 0; i < pending && !watcher.broken(); ++i) {
            devio::cdevio.call_event_from_runloop();
        }
    }
    // Subscriptions end here, on the thread that ran their events.
    watcher.clear();
    watcher.unsubscribe(devio::cdevio.manager());
    pump.unsubscribe(devio::cdevio.manager());
    ::close(wake_fd);
    ::close(signal_fd);
    return watcher.broken() ? 1 : 0;
}

}  // namespace devio_tool
