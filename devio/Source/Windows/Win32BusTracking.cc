// The table that ties a removal registration to the file handle it watches.
// From registration on, the handle belongs to the bus: only the bus closes it.

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Windows/Win32Bus.h"

namespace devio {

std::uintptr_t Win32Bus::registerDeviceNotificationAndTakeOwnershipOfHandle(PlatformHandle handle) {
    std::lock_guard<std::mutex> lock(tracked_mutex_);
    const std::uintptr_t notification = next_notification_++;
    DEVIO_LOG("Win32Bus", 2, "registerDeviceNotificationAndTakeOwnershipOfHandle",
              "registerDeviceNotificationAndTakeOwnershipOfHandle_worker: new notif %p to track "
              "handle %p",
              reinterpret_cast<void*>(notification), reinterpret_cast<void*>(handle));
    tracked_[notification] = handle;
    return notification;
}

void Win32Bus::unregisterDeviceNotificationAndCloseTrackedHandle(std::uintptr_t notification,
                                                                 PlatformHandle handle) {
    std::lock_guard<std::mutex> lock(tracked_mutex_);
    if (notification == 0 || handle == kInvalidHandle) {
        DEVIO_LOG("Win32Bus", 0, "unregisterDeviceNotificationAndCloseTrackedHandle",
                  "unregisterDeviceNotificationAndCloseTrackedHandle_worker: NULL value "
                  "(hNotification=%p, handle=%p)",
                  reinterpret_cast<void*>(notification), reinterpret_cast<void*>(handle));
        return;
    }
    const auto it = tracked_.find(notification);
    if (it == tracked_.end()) {
        DEVIO_LOG(
            "Win32Bus", 0, "unregisterDeviceNotificationAndCloseTrackedHandle",
            "unregisterDeviceNotificationAndCloseTrackedHandle_worker hNotification not tracked");
        return;
    }
    if (it->second != kInvalidHandle) {
        if (it->second != handle) {
            DEVIO_LOG("Win32Bus", 0, "unregisterDeviceNotificationAndCloseTrackedHandle",
                      "unregisterDeviceNotificationAndCloseTrackedHandle_worker mismatch "
                      "(tracked=%p, actual=%p)",
                      reinterpret_cast<void*>(it->second), reinterpret_cast<void*>(handle));
        }
        system_->close_handle(handle);
        DEVIO_LOG("Win32Bus", 3, "unregisterDeviceNotificationAndCloseTrackedHandle",
                  "closed handle %08x", static_cast<unsigned>(handle));
    } else {
        DEVIO_LOG(
            "Win32Bus", 3, "unregisterDeviceNotificationAndCloseTrackedHandle",
            "unregisterDeviceNotificationAndCloseTrackedHandle_worker handle %08x already closed",
            static_cast<unsigned>(handle));
    }
    tracked_.erase(it);
}

bool Win32Bus::verifyDeviceNotificationHandleOpen(std::uintptr_t notification,
                                                  PlatformHandle handle) {
    std::lock_guard<std::mutex> lock(tracked_mutex_);
    const auto it = tracked_.find(notification);
    return (it == tracked_.end() ? kInvalidHandle : it->second) == handle;
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

}  // namespace devio
