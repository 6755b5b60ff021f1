#include "Watch.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
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

int stop_fd = -1;

void onStopSignal(int) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto n = ::write(stop_fd, &one, sizeof one);
}

}  // namespace

int watch(const Options& options) {
    // A handler, not a signalfd: the library may have started threads (its
    // log) before main, and a signal reaches whichever thread does not block
    // it. A shell starts background jobs with SIGINT ignored; watch is meant
    // to be interrupted, so the handler replaces that too.
    stop_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    const int wake_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    if (stop_fd < 0 || wake_fd < 0 || ::sigaction(SIGINT, &action, nullptr) != 0 ||
        ::sigaction(SIGTERM, &action, nullptr) != 0) {
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
        pollfd fds[2] = {{stop_fd, POLLIN, 0}, {wake_fd, POLLIN, 0}};
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
    return watcher.broken() ? 1 : 0;
}

}  // namespace devio_tool
