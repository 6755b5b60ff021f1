#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Base/Producer.h"
#include "Bus/IHardwareBus.h"
#include "Windows/IWin32System.h"

namespace devio {

// The bottom of the bus stack: finds the HID interfaces of the machine and
// owns the file handles of the devices it made once they registered for
// removal notifications, so that a removal request can close a handle at
// once whichever object uses it.
//
// Threads: any thread calls devices, the device operations below and the
// registrations. `start_mutex_` guards the lazy start; `tracked_mutex_`
// guards the table of tracked handles and is held across the closing of a
// handle. The two are never held together.
//
// Not yet here: the device-change thread that turns udev (or, in tests, an
// inotify watch of the simulated tree) into onPlug, onUnplug and resume
// events; registrations therefore run on the caller's thread.
class Win32Bus : public IHardwareBus,
                 public Producer<IHardwareBus::PlugUnplug>,
                 public std::enable_shared_from_this<Win32Bus> {
public:
    static std::shared_ptr<Win32Bus> create();
    ~Win32Bus() override;

    std::vector<std::shared_ptr<IHardwareDevice>> devices() override;
    bool needs_combiner() override { return true; }

    virtual std::shared_ptr<IWin32System> makeWin32System();

    void lazyStart(std::shared_ptr<IWin32System>* system_out = nullptr);
    std::uintptr_t registerDeviceNotificationAndTakeOwnershipOfHandle(PlatformHandle handle);
    void unregisterDeviceNotificationAndCloseTrackedHandle(std::uintptr_t notification,
                                                           PlatformHandle handle);
    bool verifyDeviceNotificationHandleOpen(std::uintptr_t notification, PlatformHandle handle);
    // What a removal request does: closes the handle, keeps the registration.
    void closeTrackedHandle(std::uintptr_t notification, PlatformHandle handle);
    void read_failed_with_disconnect_error(const std::string& path);
    bool verify_device_exists(const std::string& path);

protected:
    Win32Bus() = default;
    bool on_subscribe(IHardwareBus::PlugUnplug* subscriber) override;

private:
    void EnumerateInterfaces(const std::string& interface_class,
                             std::vector<std::shared_ptr<IHardwareDevice>>& out);

    std::shared_ptr<IWin32System> system_;
    std::string hid_class_;
    bool started_ = false;  // guarded by start_mutex_
    std::mutex start_mutex_;
    std::map<std::uintptr_t, PlatformHandle> tracked_;  // guarded by tracked_mutex_
    std::uintptr_t next_notification_ = 1;              // guarded by tracked_mutex_
    std::mutex tracked_mutex_;
};

}  // namespace devio
