#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Linux/ChangeSources.h"
#include "Linux/LinuxSystem.h"
#include "Windows/IDeviceChangeSystem.h"

namespace devio {

// The bus's window on Linux: a message queue woken by an eventfd, polled
// together with the sources of device changes (udev on the real machine, an
// inotify watch of a simulated one, logind for resume, BlueZ for radios and
// Bluetooth devices once someone registers for the radio class). Node events
// become
// the messages a window would get: an arrival per interface of a new node;
// for a node that goes, first a removal request for each handle registered
// on it, then a removal per interface it had. The interfaces of each node
// are remembered from its arrival, because a removed node can no longer be
// read.
//
// The queue, the sent messages and `destroyed_` are guarded by `mutex_`,
// held only to queue and take messages, never while a procedure runs or a
// source is read. Everything else belongs to the window thread.
class DeviceChangeWindow : public IDeviceChangeSystem {
public:
    enum class Watch { Udev, Tree, None };

    DeviceChangeWindow(std::shared_ptr<LinuxSystem> system, Watch watch);
    ~DeviceChangeWindow() override;

    bool create_window(WindowProcedure procedure, std::uint32_t& sys_error) override;
    int get_message(WindowMessage& out) override;
    std::intptr_t dispatch_message(const WindowMessage& message) override;
    std::intptr_t default_window_procedure(const WindowMessage& message) override;
    void post_quit_message(int code) override;
    bool post_message(unsigned message, std::uintptr_t wparam, std::intptr_t lparam) override;
    bool send_message_timeout(unsigned message, std::uintptr_t wparam, std::intptr_t lparam,
                              std::uint32_t timeout_ms, std::intptr_t& result) override;
    std::uintptr_t register_handle_notification(PlatformHandle handle,
                                                std::uint32_t& sys_error) override;
    std::uintptr_t register_interface_notification(const std::string& interface_class,
                                                   std::uint32_t& sys_error) override;
    bool unregister_notification(std::uintptr_t notification, std::uint32_t& sys_error) override;

private:
    struct Sent;
    struct Known {
        std::vector<std::string> paths;
        std::string device_dir;
    };

    void enqueue(WindowMessage message);
    void wake();
    void pollSources();
    void apply(const linux_hid::NodeEvent& event);
    void nodeAdded(const std::string& node);
    void nodeRemoved(const std::string& node);
    void removalRequests(const std::string& node);
    void rescan();
    void deviceChange(unsigned event, DeviceChangeHeader header);
    std::uintptr_t watchBluez(const std::string& interface_class, std::uint32_t& sys_error);
    bool watching(const std::string& interface_class) const;
    void interfaceChange(const char* interface_class, const std::string& path, bool arrival);

    std::shared_ptr<LinuxSystem> system_;
    const Watch watch_;
    WindowProcedure procedure_;
    std::thread::id window_thread_;
    int wake_fd_ = -1;

    std::mutex mutex_;
    std::condition_variable served_;
    std::deque<WindowMessage> queue_;  // guarded by mutex_
    bool quit_ = false;                // guarded by mutex_
    bool destroyed_ = false;           // guarded by mutex_

    // Window thread only.
    std::unique_ptr<linux_hid::IChangeSource> nodes_;
    std::unique_ptr<linux_hid::IChangeSource> resume_;
    std::unique_ptr<linux_hid::IChangeSource> bluetooth_;
    std::map<std::string, Known> known_;  // node to what it had
    std::map<std::uintptr_t, std::pair<PlatformHandle, std::string>> handles_;
    std::map<std::uintptr_t, std::string> interfaces_;
    std::uintptr_t next_notification_ = 1;
};

}  // namespace devio
