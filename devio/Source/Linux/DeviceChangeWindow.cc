#include "Linux/DeviceChangeWindow.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "Base/ClassLog.h"
#include "Base/DevioException.h"
#include "Linux/SysfsHidraw.h"
#include "Windows/BluetoothSystem.h"
#include "Windows/GattSystem.h"

namespace devio {

// A message that a sender waits on; guarded by the window's mutex.
struct DeviceChangeWindow::Sent {
    bool taken = false;   // the window thread is serving it
    bool done = false;    // served; `result` holds the procedure's answer
    bool failed = false;  // withdrawn by its sender, or the window went
    std::intptr_t result = 0;
};

DeviceChangeWindow::DeviceChangeWindow(std::shared_ptr<LinuxSystem> system, Watch watch)
    : system_(std::move(system)), watch_(watch) {}

DeviceChangeWindow::~DeviceChangeWindow() {
    nodes_.reset();
    resume_.reset();
    bluetooth_.reset();
    if (wake_fd_ >= 0) ::close(wake_fd_);
}

bool DeviceChangeWindow::create_window(WindowProcedure procedure, std::uint32_t& sys_error) {
    wake_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_fd_ < 0) {
        sys_error = static_cast<std::uint32_t>(errno);
        return false;
    }
    procedure_ = std::move(procedure);
    window_thread_ = std::this_thread::get_id();
    std::string why;
    resume_ = linux_hid::openLogindResume(why);
    // A machine without logind simply gets no resume events; saying so once
    // per process is enough.
    static std::atomic<bool> told{false};
    if (!why.empty() && !told.exchange(true)) {
        DEVIO_LOG("DeviceChangeWindow", 1, "create_window", "-hid- no resume events (%s)",
                  why.c_str());
    }
    return true;
}

void DeviceChangeWindow::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake_fd_, &one, sizeof one);
}

void DeviceChangeWindow::enqueue(WindowMessage message) {
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.push_back(std::move(message));
}

int DeviceChangeWindow::get_message(WindowMessage& out) {
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (quit_) return 0;
            while (!queue_.empty()) {
                WindowMessage next = std::move(queue_.front());
                queue_.pop_front();
                if (next.reply) {
                    auto* sent = static_cast<Sent*>(next.reply.get());
                    if (sent->failed) continue;
                    sent->taken = true;
                }
                out = std::move(next);
                return 1;
            }
        }
        pollSources();
    }
}

void DeviceChangeWindow::pollSources() {
    linux_hid::IChangeSource* sources[] = {nodes_.get(), resume_.get(), bluetooth_.get()};
    constexpr std::size_t kSources = sizeof sources / sizeof sources[0];
    pollfd fds[1 + kSources] = {{wake_fd_, POLLIN, 0}};
    int timeout = -1;
    for (std::size_t i = 0; i < kSources; ++i) {
        fds[1 + i] = {-1, 0, 0};
        if (sources[i] == nullptr) continue;
        fds[1 + i] = {sources[i]->fd(), sources[i]->events(), 0};
        const int wanted = sources[i]->timeoutMs();
        if (wanted >= 0 && (timeout < 0 || wanted < timeout)) timeout = wanted;
    }
    if (::poll(fds, 1 + kSources, timeout) < 0) return;  // EINTR: the caller looks again
    if (fds[0].revents & POLLIN) {
        std::uint64_t value = 0;
        [[maybe_unused]] const auto got = ::read(wake_fd_, &value, sizeof value);
    }
    std::vector<linux_hid::NodeEvent> events;
    if (nodes_ && fds[1].revents != 0) nodes_->drain(events);
    // sd-bus also wants to run when its time-out passes, with nothing to read.
    if (resume_) resume_->drain(events);
    if (bluetooth_) bluetooth_->drain(events);
    for (const auto& event : events) apply(event);
}

void DeviceChangeWindow::apply(const linux_hid::NodeEvent& event) {
    using linux_hid::NodeEvent;
    switch (event.kind) {
        case NodeEvent::Added:
            nodeAdded(event.node);
            break;
        case NodeEvent::Removed:
            nodeRemoved(event.node);
            break;
        case NodeEvent::Unbound:
            for (const auto& [node, known] : known_) {
                if (known.device_dir == event.syspath) removalRequests(node);
            }
            break;
        case NodeEvent::Resumed:
            enqueue({window_message::kPowerBroadcast, window_message::kResumeAutomatic, 0, {}, {}});
            break;
        case NodeEvent::Lost:
            rescan();
            break;
        case NodeEvent::GattAdded:
        case NodeEvent::GattRemoved:
            interfaceChange(kVxpGattClass, event.node, event.kind == NodeEvent::GattAdded);
            break;
        case NodeEvent::RadioAdded:
        case NodeEvent::RadioRemoved:
            interfaceChange(kBluetoothRadioClass, event.node, event.kind == NodeEvent::RadioAdded);
            break;
        case NodeEvent::Bluetooth: {
            if (!watching(kBluetoothRadioClass)) break;
            DeviceChangeHeader header;
            header.device_type = device_change::kHandle;
            header.path = event.node;
            header.bluetooth = event.bluetooth;
            deviceChange(device_change::kCustomEvent, std::move(header));
            break;
        }
    }
}

// An interface of a class that the Bluetooth stack tells of, to the window
// only while someone watches the class.
void DeviceChangeWindow::interfaceChange(const char* interface_class, const std::string& path,
                                         bool arrival) {
    if (!watching(interface_class)) return;
    DeviceChangeHeader header;
    header.device_type = device_change::kInterface;
    header.interface_class = interface_class;
    header.path = path;
    deviceChange(arrival ? device_change::kArrival : device_change::kRemoveComplete,
                 std::move(header));
}

void DeviceChangeWindow::deviceChange(unsigned event, DeviceChangeHeader header) {
    auto owned = std::make_shared<const DeviceChangeHeader>(std::move(header));
    const auto lparam = reinterpret_cast<std::intptr_t>(owned.get());
    enqueue({window_message::kDeviceChange, event, lparam, std::move(owned), {}});
}

void DeviceChangeWindow::nodeAdded(const std::string& node) {
    Known now;
    for (const HidInterface& found : system_->interfacesOf(node)) now.paths.push_back(found.path);
    if (now.paths.empty()) return;  // gone again before it could be read
    now.device_dir = system_->sysfs().deviceDirectory(node);
    const auto it = known_.find(node);
    if (it != known_.end()) {
        if (it->second.paths == now.paths) return;  // seen already, at registration
        nodeRemoved(node);
    }
    for (const std::string& path : now.paths) {
        DeviceChangeHeader header;
        header.device_type = device_change::kInterface;
        header.interface_class = system_->hid_interface_class();
        header.path = path;
        deviceChange(device_change::kArrival, std::move(header));
    }
    known_[node] = std::move(now);
}

// The kernel does not ask before a device goes; the handles on its node are
// closed first all the same, as a removal request would have them.
void DeviceChangeWindow::nodeRemoved(const std::string& node) {
    removalRequests(node);
    const auto it = known_.find(node);
    if (it == known_.end()) return;
    for (const std::string& path : it->second.paths) {
        DeviceChangeHeader header;
        header.device_type = device_change::kInterface;
        header.interface_class = system_->hid_interface_class();
        header.path = path;
        deviceChange(device_change::kRemoveComplete, std::move(header));
    }
    known_.erase(it);
}

void DeviceChangeWindow::removalRequests(const std::string& node) {
    for (const auto& [notification, watched] : handles_) {
        if (watched.second != node) continue;
        DeviceChangeHeader header;
        header.device_type = device_change::kHandle;
        header.notification = notification;
        header.handle = watched.first;
        deviceChange(device_change::kQueryRemove, std::move(header));
    }
}

// After lost events: what went is removed, what came (or came back as
// another device) arrives.
void DeviceChangeWindow::rescan() {
    int err = 0;
    const std::vector<std::string> now = system_->sysfs().listNodes(err);
    std::vector<std::string> gone;
    for (const auto& [node, known] : known_) {
        if (std::find(now.begin(), now.end(), node) == now.end()) gone.push_back(node);
    }
    for (const std::string& node : gone) nodeRemoved(node);
    for (const std::string& node : now) nodeAdded(node);
}

std::intptr_t DeviceChangeWindow::dispatch_message(const WindowMessage& message) {
    const std::intptr_t result = procedure_(message);
    if (message.reply) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto* sent = static_cast<Sent*>(message.reply.get());
        sent->done = true;
        sent->result = result;
        served_.notify_all();
    }
    return result;
}

std::intptr_t DeviceChangeWindow::default_window_procedure(const WindowMessage& message) {
    if (message.message == window_message::kClose)
        procedure_({window_message::kDestroy, 0, 0, {}, {}});
    return 0;
}

// The window is gone with the quit: senders still queued are let go now
// rather than at their time-out.
void DeviceChangeWindow::post_quit_message(int /*code*/) {
    std::lock_guard<std::mutex> lock(mutex_);
    quit_ = true;
    destroyed_ = true;
    for (const WindowMessage& queued : queue_) {
        if (queued.reply) static_cast<Sent*>(queued.reply.get())->failed = true;
    }
    served_.notify_all();
}

bool DeviceChangeWindow::post_message(unsigned message, std::uintptr_t wparam,
                                      std::intptr_t lparam) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (destroyed_) return false;
        queue_.push_back({message, wparam, lparam, {}, {}});
    }
    wake();
    return true;
}

bool DeviceChangeWindow::send_message_timeout(unsigned message, std::uintptr_t wparam,
                                              std::intptr_t lparam, std::uint32_t timeout_ms,
                                              std::intptr_t& result) {
    if (std::this_thread::get_id() == window_thread_) {
        result = procedure_({message, wparam, lparam, {}, {}});
        return true;
    }
    auto sent = std::make_shared<Sent>();
    std::unique_lock<std::mutex> lock(mutex_);
    if (destroyed_) return false;
    queue_.push_back({message, wparam, lparam, {}, sent});
    wake();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    served_.wait_until(lock, deadline, [&] { return sent->done || sent->failed; });
    if (!sent->done && !sent->failed && !sent->taken) sent->failed = true;
    // Taken in time: the procedure is working on lParam now, which belongs to
    // this caller, so its end is waited for.
    served_.wait(lock, [&] { return sent->done || sent->failed; });
    if (!sent->done) return false;
    result = sent->result;
    return true;
}

std::uintptr_t DeviceChangeWindow::register_handle_notification(PlatformHandle handle,
                                                                std::uint32_t& sys_error) {
    const std::string node = system_->nodeOfHandle(handle);
    if (node.empty()) {
        sys_error = EBADF;
        return 0;
    }
    const std::uintptr_t notification = next_notification_++;
    handles_[notification] = {handle, node};
    return notification;
}

bool DeviceChangeWindow::watching(const std::string& interface_class) const {
    for (const auto& [notification, registered] : interfaces_) {
        if (registered == interface_class) return true;
    }
    return false;
}

// The radio class brings the Bluetooth stack's events, and the GATT class
// the vendor services of its devices, from the moment of the first
// registration of either to the end of the last.
std::uintptr_t DeviceChangeWindow::watchBluez(const std::string& interface_class,
                                              std::uint32_t& sys_error) {
    if (!bluetooth_) {
        std::string why;
        int err = 0;
        bluetooth_ = linux_hid::openBluezWatch(why, err);
        if (!bluetooth_) {
            DEVIO_LOG("DeviceChangeWindow", 1, "register_interface_notification",
                      "-bt- cannot watch Bluetooth radios (%s)", why.c_str());
            sys_error = static_cast<std::uint32_t>(err);
            return 0;
        }
    }
    const std::uintptr_t notification = next_notification_++;
    interfaces_[notification] = interface_class;
    return notification;
}

std::uintptr_t DeviceChangeWindow::register_interface_notification(
    const std::string& interface_class, std::uint32_t& sys_error) {
    if (interface_class == kBluetoothRadioClass || interface_class == kVxpGattClass)
        return watchBluez(interface_class, sys_error);
    if (interface_class != system_->hid_interface_class()) {
        sys_error = EINVAL;
        return 0;
    }
    if (!nodes_) {
        int err = ENOTSUP;
        if (watch_ == Watch::Tree) nodes_ = linux_hid::openTreeWatch(system_->sysfs().root(), err);
        if (watch_ == Watch::Udev) nodes_ = linux_hid::openUdevMonitor(err);
        if (!nodes_) {
            sys_error = static_cast<std::uint32_t>(err);
            return 0;
        }
        // What is there now is known before the first change arrives; a
        // node seen both here and by the watch arrives once.
        int ignored = 0;
        for (const auto& [node, interfaces] : system_->interfacesByNode(ignored)) {
            Known now;
            for (const HidInterface& found : interfaces) now.paths.push_back(found.path);
            now.device_dir = system_->sysfs().deviceDirectory(node);
            if (!now.paths.empty()) known_[node] = std::move(now);
        }
    }
    const std::uintptr_t notification = next_notification_++;
    interfaces_[notification] = interface_class;
    return notification;
}

bool DeviceChangeWindow::unregister_notification(std::uintptr_t notification,
                                                 std::uint32_t& sys_error) {
    if (handles_.erase(notification) != 0) return true;
    const auto it = interfaces_.find(notification);
    if (it != interfaces_.end()) {
        const std::string interface_class = it->second;
        interfaces_.erase(it);
        for (const auto& [other, still] : interfaces_) {
            if (still == interface_class) return true;
        }
        if (interface_class == kBluetoothRadioClass || interface_class == kVxpGattClass) {
            if (!watching(kBluetoothRadioClass) && !watching(kVxpGattClass)) bluetooth_.reset();
        } else {
            nodes_.reset();
            known_.clear();
        }
        return true;
    }
    sys_error = ENOENT;
    return false;
}

std::shared_ptr<IDeviceChangeSystem> makePlatformDeviceChange(
    const std::shared_ptr<IWin32System>& system) {
    auto linux_system = std::dynamic_pointer_cast<LinuxSystem>(system);
    if (!linux_system)
        throw DevioException(WindowCreateFailed, "device changes need the hidraw binding");
    // The real machine's changes come from udev; a simulated machine's tree
    // is watched itself. DEVIO_DEVICECHANGE=udev|inotify overrides the choice.
    using Watch = DeviceChangeWindow::Watch;
    const char* chosen = std::getenv("DEVIO_DEVICECHANGE");
    Watch watch = Watch::Tree;
    if (chosen && std::strcmp(chosen, "udev") == 0) {
        watch = Watch::Udev;
    } else if (chosen && std::strcmp(chosen, "inotify") == 0) {
        watch = Watch::Tree;
    } else {
        char real[PATH_MAX];
        const std::string root = linux_system->sysfs().root();
        if (::realpath(root.c_str(), real) != nullptr && std::strcmp(real, "/sys") == 0)
            watch = Watch::Udev;
    }
    return std::make_shared<DeviceChangeWindow>(std::move(linux_system), watch);
}

}  // namespace devio
