#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Base/Producer.h"
#include "Bus/IBluetoothBus.h"
#include "Bus/IHardwareBus.h"
#include "Windows/IDeviceChangeSystem.h"
#include "Windows/IWin32System.h"

namespace devio {

class IDeviceManager;
struct Win32BusRequest;

// The bottom of the bus stack: finds the HID interfaces of the machine,
// turns the platform's device-change notifications into onPlug, onUnplug
// and onPowerChange, and owns the file handles of its devices once they
// registered for removal requests, so that a request can close a handle at
// once whichever object uses it. Its Bluetooth monitor, made at `init`,
// gets every device-change message after the bus has handled it.
//
// Threads: a window thread of its own receives the notifications, runs
// every registration and produces the bus's events; any other thread calls
// devices, the registrations (which it hands to the window thread and waits
// for, at most 5000 ms) and the device operations. `start_mutex_` guards the
// lazy start and is held across the start of the thread; `started_mutex_`
// serves the start handshake; `tracked_mutex_` guards the table of tracked
// handles and is held across the closing of a handle and its
// unregistration. No two of them are held together, and none is held while
// sending to the window thread.
class Win32Bus : public IHardwareBus,
                 public Producer<IHardwareBus::PlugUnplug>,
                 public std::enable_shared_from_this<Win32Bus> {
public:
    // `manager` hears of failures on the window thread, where no caller can
    // be told.
    static std::shared_ptr<Win32Bus> create(std::weak_ptr<IDeviceManager> manager = {});
    ~Win32Bus() override;

    std::vector<std::shared_ptr<IHardwareDevice>> devices() override;
    std::vector<std::shared_ptr<IBluetoothBus>> bluetooth_busses() override;
    bool needs_combiner() override { return true; }
    std::vector<std::shared_ptr<IHardwareSecondaryBus>> secondary_busses() override;

    virtual std::shared_ptr<IWin32System> makeWin32System();
    virtual std::shared_ptr<IDeviceChangeSystem> makeDeviceChangeSystem(
        const std::shared_ptr<IWin32System>& system);
    virtual void window_thread();

    void lazyStart(std::shared_ptr<IWin32System>* system_out = nullptr);
    std::uintptr_t registerDeviceNotificationAndTakeOwnershipOfHandle(PlatformHandle handle);
    void unregisterDeviceNotificationAndCloseTrackedHandle(std::uintptr_t notification,
                                                           PlatformHandle handle);
    bool verifyDeviceNotificationHandleOpen(std::uintptr_t notification, PlatformHandle handle);
    std::uintptr_t registerInterfaceNotification(const std::string& interface_class);
    void unregisterInterfaceNotification(std::uintptr_t notification);
    // What a removal request does: closes the handle, keeps the registration.
    void closeTrackedHandle(std::uintptr_t notification, PlatformHandle handle);
    void read_failed_with_disconnect_error(const std::string& path);
    bool verify_device_exists(const std::string& path);
    // A boolean configuration item of the manager; false when the manager
    // is gone.
    bool configItem(unsigned item);
    // Tells the manager of a failure that no caller can receive.
    void reportToManager(const char* where);

protected:
    explicit Win32Bus(std::weak_ptr<IDeviceManager> manager = {});
    // Makes the monitors; needs the shared pointer to this bus.
    void init();
    bool on_subscribe(IHardwareBus::PlugUnplug* subscriber) override;

private:
    void EnumerateInterfaces(const std::string& interface_class,
                             std::vector<std::shared_ptr<IHardwareDevice>>& out);

    // The window thread.
    void window_thread_static();
    void window_thread_has_started();
    // Unregisters every notification and closes every tracked handle: the
    // end of the window thread, or of the bus when it ends on that thread.
    void releaseNotifications();
    std::intptr_t WindowProc(const WindowMessage& message);
    void serveRequest(Win32BusRequest& request);
    void processDeviceChange(unsigned event, const DeviceChangeHeader* header);
    void produceForPath(unsigned event, const std::string& path, bool arrival);
    std::uintptr_t registerDeviceNotificationAndTakeOwnershipOfHandle_worker(PlatformHandle handle);
    void unregisterDeviceNotificationAndCloseTrackedHandle_worker(std::uintptr_t notification,
                                                                  PlatformHandle handle);
    std::uintptr_t registerInterfaceNotification_worker(const std::string& interface_class);
    void unregisterInterfaceNotification_worker(std::uintptr_t notification);
    // Hands a request to the window thread; false when it did not answer.
    bool send(Win32BusRequest& request);

    std::weak_ptr<IDeviceManager> manager_;
    // Non-null from the window's creation to the end of its thread; other
    // threads read it for their sends.
    std::atomic<IDeviceChangeSystem*> window_{nullptr};
    std::shared_ptr<IDeviceChangeSystem> change_;  // set before the thread starts
    std::thread window_thread_;
    bool window_thread_started_ = false;  // guarded by started_mutex_
    bool window_thread_failed_ = false;   // guarded by started_mutex_
    std::mutex started_mutex_;
    std::condition_variable started_cv_;
    std::shared_ptr<IWin32System> system_;
    std::string hid_class_;
    std::atomic<bool> window_thread_ended_{false};
    // False once the bus has ended on its own window thread; the thread
    // holds a copy, which outlives the bus.
    std::shared_ptr<std::atomic<bool>> alive_ = std::make_shared<std::atomic<bool>>(true);
    std::vector<std::shared_ptr<IBluetoothBus>> bluetooth_monitors_;
    std::vector<std::shared_ptr<IHardwareSecondaryBus>> secondary_busses_;
    std::map<std::uintptr_t, PlatformHandle> tracked_;  // guarded by tracked_mutex_
    std::mutex tracked_mutex_;
    std::set<std::uintptr_t> interface_notifications_;  // window thread only
    bool started_ = false;                              // guarded by start_mutex_
    std::mutex start_mutex_;
};

}  // namespace devio
