// Registrations of the bus, run on its window thread, and the table that
// ties a removal registration to the file handle it watches. From
// registration on, the handle belongs to the bus: only the bus closes it.

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Windows/Win32Bus.h"
#include "Windows/Win32BusRequest.h"

namespace devio {

namespace {
// How long another thread waits for the window thread to serve it.
constexpr std::uint32_t kSendTimeoutMs = 5000;
}  // namespace

// The caller must hold no lock that a handler on the window thread needs.
bool Win32Bus::send(Win32BusRequest& request) {
    IDeviceChangeSystem* window = window_.load();
    std::intptr_t result = 0;
    if (window != nullptr && window->send_message_timeout(window_message::kUser, sizeof request,
                                                          reinterpret_cast<std::intptr_t>(&request),
                                                          kSendTimeoutMs, result)) {
        return true;
    }
    DEVIO_LOG("Win32Bus", 1, "send", "-hid- SendMessageTimeout failed or timed out");
    return false;
}

std::uintptr_t Win32Bus::registerDeviceNotificationAndTakeOwnershipOfHandle(PlatformHandle handle) {
    if (window_.load() == nullptr) {
        set_error(ShuttingDown);
        DEVIO_LOG("Win32Bus", 1, "registerDeviceNotificationAndTakeOwnershipOfHandle",
                  "registerDeviceNotificationAndTakeOwnershipOfHandle no hwd");
        return 0;
    }
    Win32BusRequest request;
    request.ishandle = 1;
    request.handle = handle;
    if (!send(request)) return 0;
    if (request.notification == 0)
        set_error(static_cast<ErrorCode>(request.err), nullptr, request.sys);
    return request.notification;
}

void Win32Bus::unregisterDeviceNotificationAndCloseTrackedHandle(std::uintptr_t notification,
                                                                 PlatformHandle handle) {
    if (window_.load() == nullptr) {
        DEVIO_LOG("Win32Bus", 1, "unregisterDeviceNotificationAndCloseTrackedHandle",
                  "unregisterDeviceNotificationAndCloseTrackedHandle no hwnd");
        return;
    }
    Win32BusRequest request;
    request.ishandle = 1;
    request.unregister = 1;
    request.handle = handle;
    request.notification = notification;
    if (!send(request)) {
        DEVIO_LOG("Win32Bus", 1, "unregisterDeviceNotificationAndCloseTrackedHandle",
                  "Win32Bus::unregisterDeviceNotificationAndCloseTrackedHandle SendMessageTimeout "
                  "failed or timed out");
    }
}

std::uintptr_t Win32Bus::registerInterfaceNotification(const std::string& interface_class) {
    if (window_.load() == nullptr) {
        set_error(ShuttingDown);
        DEVIO_LOG("Win32Bus", 1, "registerInterfaceNotification",
                  "registerInterfaceNotification no hwnd");
        return 0;
    }
    Win32BusRequest request;
    request.set_class(interface_class);
    if (!send(request)) return 0;
    if (request.index == 0) set_error(static_cast<ErrorCode>(request.err), nullptr, request.sys);
    return request.index;
}

void Win32Bus::unregisterInterfaceNotification(std::uintptr_t notification) {
    if (window_.load() == nullptr) {
        DEVIO_LOG("Win32Bus", 1, "unregisterInterfaceNotification",
                  "Win32Bus::unregisterInterfaceNotification no hwnd");
        return;
    }
    Win32BusRequest request;
    request.unregister = 1;
    request.index = notification;
    send(request);
}

std::uintptr_t Win32Bus::registerDeviceNotificationAndTakeOwnershipOfHandle_worker(
    PlatformHandle handle) {
    std::uint32_t sys = 0;
    const std::uintptr_t notification = change_->register_handle_notification(handle, sys);
    if (notification == 0) {
        DEVIO_LOG("Win32Bus", 0, "registerDeviceNotificationAndTakeOwnershipOfHandle_worker",
                  "registerDeviceNotificationAndTakeOwnershipOfHandle_worker: "
                  "RegisterDeviceNotification failed, err=%d",
                  static_cast<int>(sys));
        set_error(RegisterNotificationFailed, "RegisterDeviceNotification", sys);
        return 0;
    }
    std::lock_guard<std::mutex> lock(tracked_mutex_);
    const auto it = tracked_.find(notification);
    if (it != tracked_.end()) {
        DEVIO_LOG("Win32Bus", 0, "registerDeviceNotificationAndTakeOwnershipOfHandle_worker",
                  "registerDeviceNotificationAndTakeOwnershipOfHandle_worker: new notif %p to "
                  "track handle %p already tracking handle %p",
                  reinterpret_cast<void*>(notification), reinterpret_cast<void*>(handle),
                  reinterpret_cast<void*>(it->second));
    } else {
        DEVIO_LOG("Win32Bus", 2, "registerDeviceNotificationAndTakeOwnershipOfHandle_worker",
                  "registerDeviceNotificationAndTakeOwnershipOfHandle_worker: new notif %p to "
                  "track handle %p",
                  reinterpret_cast<void*>(notification), reinterpret_cast<void*>(handle));
    }
    tracked_[notification] = handle;
    return notification;
}

void Win32Bus::unregisterDeviceNotificationAndCloseTrackedHandle_worker(std::uintptr_t notification,
                                                                        PlatformHandle handle) {
    std::lock_guard<std::mutex> lock(tracked_mutex_);
    if (notification == 0 || handle == kInvalidHandle) {
        DEVIO_LOG("Win32Bus", 0, "unregisterDeviceNotificationAndCloseTrackedHandle_worker",
                  "unregisterDeviceNotificationAndCloseTrackedHandle_worker: NULL value "
                  "(hNotification=%p, handle=%p)",
                  reinterpret_cast<void*>(notification), reinterpret_cast<void*>(handle));
        return;
    }
    const auto it = tracked_.find(notification);
    if (it == tracked_.end()) {
        DEVIO_LOG(
            "Win32Bus", 0, "unregisterDeviceNotificationAndCloseTrackedHandle_worker",
            "unregisterDeviceNotificationAndCloseTrackedHandle_worker hNotification not tracked");
        return;
    }
    if (it->second != kInvalidHandle) {
        if (it->second != handle) {
            DEVIO_LOG("Win32Bus", 0, "unregisterDeviceNotificationAndCloseTrackedHandle_worker",
                      "unregisterDeviceNotificationAndCloseTrackedHandle_worker mismatch "
                      "(tracked=%p, actual=%p)",
                      reinterpret_cast<void*>(it->second), reinterpret_cast<void*>(handle));
        }
        system_->close_handle(handle);
        DEVIO_LOG("Win32Bus", 3, "unregisterDeviceNotificationAndCloseTrackedHandle_worker",
                  "closed handle %08x", static_cast<unsigned>(handle));
    } else {
        DEVIO_LOG(
            "Win32Bus", 3, "unregisterDeviceNotificationAndCloseTrackedHandle_worker",
            "unregisterDeviceNotificationAndCloseTrackedHandle_worker handle %08x already closed",
            static_cast<unsigned>(handle));
    }
    std::uint32_t sys = 0;
    if (!change_->unregister_notification(notification, sys)) {
        DEVIO_LOG("Win32Bus", 0, "unregisterDeviceNotificationAndCloseTrackedHandle_worker",
                  "unregisterDeviceNotificationAndCloseTrackedHandle_worker unregister failed, "
                  "err=%d",
                  static_cast<int>(sys));
    }
    tracked_.erase(it);
}

bool Win32Bus::verifyDeviceNotificationHandleOpen(std::uintptr_t notification,
                                                  PlatformHandle handle) {
    std::lock_guard<std::mutex> lock(tracked_mutex_);
    const auto it = tracked_.find(notification);
    return (it == tracked_.end() ? PlatformHandle{0} : it->second) == handle;
}

void Win32Bus::closeTrackedHandle(std::uintptr_t notification, PlatformHandle handle) {
    std::lock_guard<std::mutex> lock(tracked_mutex_);
    if (notification == 0 || handle == kInvalidHandle) {
        DEVIO_LOG("Win32Bus", 0, "closeTrackedHandle",
                  "closeTrackedHandle: NULL value (hNotification=%px, handle=%p)",
                  reinterpret_cast<void*>(notification), reinterpret_cast<void*>(handle));
        return;
    }
    const auto it = tracked_.find(notification);
    if (it == tracked_.end()) {
        DEVIO_LOG("Win32Bus", 0, "closeTrackedHandle",
                  "closeTrackedHandle hNotification not tracked");
        return;
    }
    if (it->second == kInvalidHandle) {
        DEVIO_LOG("Win32Bus", 3, "closeTrackedHandle", "handle %p already closed",
                  reinterpret_cast<void*>(handle));
        return;
    }
    if (it->second != handle) {
        DEVIO_LOG("Win32Bus", 0, "closeTrackedHandle",
                  "closeTrackedHandle mismatch (tracked=%p, actual=%p)",
                  reinterpret_cast<void*>(it->second), reinterpret_cast<void*>(handle));
    }
    system_->close_handle(handle);
    DEVIO_LOG("Win32Bus", 3, "closeTrackedHandle", "closed handle %p",
              reinterpret_cast<void*>(handle));
    it->second = kInvalidHandle;
}

std::uintptr_t Win32Bus::registerInterfaceNotification_worker(const std::string& interface_class) {
    std::uint32_t sys = 0;
    const std::uintptr_t notification =
        change_->register_interface_notification(interface_class, sys);
    if (notification == 0) {
        DEVIO_LOG("Win32Bus", 2, "registerInterfaceNotification_worker",
                  "-hid- RegisterDeviceNotification_worker failed, syserr=%d",
                  static_cast<int>(sys));
        set_error(InterfaceNotificationFailed, nullptr, sys);
        return 0;
    }
    interface_notifications_.insert(notification);
    return notification;
}

void Win32Bus::unregisterInterfaceNotification_worker(std::uintptr_t notification) {
    if (interface_notifications_.erase(notification) == 0) return;
    std::uint32_t sys = 0;
    change_->unregister_notification(notification, sys);
}

}  // namespace devio
