// The bus's window thread: the start handshake, the message loop, the
// device-change notifications turned into the bus's events, and the
// release of every registration as the thread ends.

#include "Base/ClassLog.h"
#include "Base/DevioException.h"
#include "Base/ErrorRecord.h"
#include "Manager/IDeviceManager.h"
#include "Windows/Win32Bus.h"
#include "Windows/Win32BusRequest.h"
#include "Windows/Win32Device.h"

namespace devio {

void Win32Bus::reportToManager(const char* where) {
    if (auto manager = manager_.lock()) {
        manager->report_unreported_error(where);
    } else {
        DEVIO_LOG("Win32Bus", 1, "window_thread", "Win32Bus::window_thread could not lock manager");
    }
}

void Win32Bus::window_thread_static() {
    DEVIO_LOG("Win32Bus", 3, "window_thread_static", "Win32Bus::window_thread_static start");
    const std::shared_ptr<std::atomic<bool>> alive = alive_;
    try {
        window_thread();
    } catch (...) {
        if (!*alive) return;
        DEVIO_LOG("Win32Bus", 1, "window_thread_static",
                  "Win32Bus::window_thread_static exception");
        if (manager_.lock()) {
            set_error(WindowThreadException);
            reportToManager("Win32Bus::window_thread_static");
        }
    }
    // The bus ended on this thread, inside a handler: nothing of it is left
    // to touch.
    if (!*alive) return;
    window_.store(nullptr);
    window_thread_ended_ = true;
    {
        // A thread that never completed the handshake releases the waiting
        // start.
        std::lock_guard<std::mutex> lock(started_mutex_);
        if (!window_thread_started_) window_thread_failed_ = true;
    }
    started_cv_.notify_all();
    DEVIO_LOG("Win32Bus", 3, "window_thread_static", "Win32Bus::window_thread_static end");
}

void Win32Bus::window_thread_has_started() {
    DEVIO_LOG("Win32Bus", 3, "window_thread", "Win32Bus::window_thread_has_started");
    {
        std::lock_guard<std::mutex> lock(started_mutex_);
        window_thread_started_ = true;
    }
    started_cv_.notify_all();
}

void Win32Bus::window_thread() {
    DEVIO_LOG("Win32Bus", 3, "window_thread", "Win32Bus::window_thread start");
    std::uint32_t sys = 0;
    if (!change_->create_window([this](const WindowMessage& m) { return WindowProc(m); }, sys)) {
        DEVIO_LOG("Win32Bus", 1, "window_thread",
                  "Win32Bus::window_thread CreateWindowEx failed, err=%d", static_cast<int>(sys));
        throw DevioException(WindowCreateFailed, "could not create window", sys);
    }
    window_.store(change_.get());

    // Without the interface notification the bus still enumerates; only
    // arrival and removal are blind.
    if (registerInterfaceNotification_worker(hid_class_) == 0)
        reportToManager("Win32Bus::window_thread");
    window_thread_has_started();

    // A handler may drop the last reference to the bus, whose destructor
    // then runs here and leaves the loop without touching the bus again.
    const std::shared_ptr<std::atomic<bool>> alive = alive_;
    const std::shared_ptr<IDeviceChangeSystem> change = change_;
    WindowMessage message;
    for (;;) {
        const int got = change->get_message(message);
        if (got == 0 || got == -1) break;
        change->dispatch_message(message);
        if (!*alive) return;
        message = WindowMessage{};
    }
    releaseNotifications();
}

void Win32Bus::releaseNotifications() {
    // Nobody can reach the window any more: later registrations fail at
    // once instead of waiting for a thread that has gone.
    window_.store(nullptr);
    const std::set<std::uintptr_t> interfaces = interface_notifications_;
    for (std::uintptr_t notification : interfaces)
        unregisterInterfaceNotification_worker(notification);
    std::map<std::uintptr_t, PlatformHandle> tracked;
    {
        std::lock_guard<std::mutex> lock(tracked_mutex_);
        tracked = tracked_;
    }
    for (const auto& [notification, handle] : tracked)
        unregisterDeviceNotificationAndCloseTrackedHandle_worker(notification, handle);
    window_thread_ended_ = true;
    DEVIO_LOG("Win32Bus", 3, "window_thread", "Win32Bus::window_thread end");
}

std::intptr_t Win32Bus::WindowProc(const WindowMessage& message) {
    DEVIO_LOG("Win32Bus", 4, "WindowProcStatic", "Win32Bus::WindowProcStatic msg=%d",
              static_cast<int>(message.message));
    switch (message.message) {
        case window_message::kDestroy:
            DEVIO_LOG("Win32Bus", 3, "WindowProc", "Win32Bus WM_DESTROY");
            change_->post_quit_message(0);
            return 0;
        case window_message::kPowerBroadcast:
            if (message.wparam == window_message::kResumeAutomatic) {
                DEVIO_LOG("Win32Bus", 2, "WindowProc",
                          "Win32Bus WM_POWERBROADCAST - PBT_APMRESUMEAUTOMATIC");
                produce([](IHardwareBus::PlugUnplug* s) { s->onPowerChange(false); },
                        event_names::Win32BusPlugUnplug.onPowerChange);
            }
            return 0;
        case window_message::kDeviceChange:
            DEVIO_LOG("Win32Bus", 3, "WindowProc", "Win32Bus WM_DEVICECHANGE enter");
            try {
                processDeviceChange(static_cast<unsigned>(message.wparam), message.header.get());
            } catch (...) {
            }
            DEVIO_LOG("Win32Bus", 3, "WindowProc", "Win32Bus WM_DEVICECHANGE exit");
            return 0;
        case window_message::kUser: {
            auto* request = reinterpret_cast<Win32BusRequest*>(message.lparam);
            if (message.wparam != sizeof(Win32BusRequest) || request == nullptr ||
                request->size != sizeof(Win32BusRequest)) {
                DEVIO_LOG("Win32Bus", 1, "WindowProc",
                          "Win32Bus::WindowProc got WM_USER with unexpected parameters");
                return 0;
            }
            DEVIO_LOG("Win32Bus", 3, "WindowProc",
                      "Win32Bus::WindowProc processing WM_USER, ishandle=%d, unregister=%d",
                      request->ishandle, request->unregister);
            serveRequest(*request);
            DEVIO_LOG("Win32Bus", 3, "WindowProc", "Win32Bus::WindowProc done processing WM_USER");
            return 0;
        }
        default:
            return change_->default_window_procedure(message);
    }
}

void Win32Bus::serveRequest(Win32BusRequest& request) {
    const auto handle = static_cast<PlatformHandle>(request.handle);
    if (request.ishandle && request.unregister) {
        unregisterDeviceNotificationAndCloseTrackedHandle_worker(request.notification, handle);
        DEVIO_LOG("Win32Bus", 3, "WindowProc",
                  "Win32Bus::WindowProc wmuser unregistered notif %p handle %p",
                  reinterpret_cast<void*>(request.notification), reinterpret_cast<void*>(handle));
    } else if (request.ishandle) {
        request.notification = registerDeviceNotificationAndTakeOwnershipOfHandle_worker(handle);
        DEVIO_LOG("Win32Bus", 3, "WindowProc",
                  "Win32Bus::WindowProc wmuser registered notif %p handle %p",
                  reinterpret_cast<void*>(request.notification), reinterpret_cast<void*>(handle));
        if (request.notification == 0) {
            request.err = error_record().err;
            request.sys = error_record().sys;
        }
    } else if (request.unregister) {
        unregisterInterfaceNotification_worker(request.index);
        DEVIO_LOG("Win32Bus", 3, "WindowProc", "Win32Bus::WindowProc wmuser unregistered index %d",
                  static_cast<int>(request.index));
    } else {
        request.index = registerInterfaceNotification_worker(request.class_name());
        DEVIO_LOG("Win32Bus", 3, "WindowProc", "Win32Bus::WindowProc wmuser registered index %d",
                  static_cast<int>(request.index));
        if (request.index == 0) {
            request.err = error_record().err;
            request.sys = error_record().sys;
        }
    }
}

// Arrival, removal request and removal of one interface, told by its path;
// the object is new, since identity lies in the path.
void Win32Bus::produceForPath(unsigned /*event*/, const std::string& path, bool arrival) {
    std::shared_ptr<Win32Bus> self;
    try {
        self = shared_from_this();
    } catch (...) {
        return;  // the bus is going: nobody is left to tell
    }
    std::shared_ptr<IHardwareDevice> device = std::make_shared<Win32Device>(self, system_, path, 0);
    if (arrival) {
        DEVIO_LOG("Win32Bus", 3, "processDeviceChange",
                  "Win32Bus::processDeviceChange arrive producing onPlug event");
        produce([device](IHardwareBus::PlugUnplug* s) { s->onPlug(device); },
                event_names::Win32BusPlugUnplug.onPlug);
    } else {
        DEVIO_LOG("Win32Bus", 3, "processDeviceChange",
                  "Win32Bus::processDeviceChange remove producing onUnplug event");
        produce([device](IHardwareBus::PlugUnplug* s) { s->onUnplug(device); },
                event_names::Win32BusPlugUnplug.onUnplug);
    }
}

void Win32Bus::processDeviceChange(unsigned event, const DeviceChangeHeader* header) {
    enum class Class { None, Arrival, Removal } kind = Class::None;
    switch (event) {
        case device_change::kArrival:
            DEVIO_LOG("Win32Bus", 3, "processDeviceChange",
                      "Win32Bus::processDeviceChange DBT_DEVICEARRIVAL");
            kind = Class::Arrival;
            break;
        case device_change::kQueryRemove:
            DEVIO_LOG("Win32Bus", 3, "processDeviceChange",
                      "Win32Bus::processDeviceChange DBT_DEVICEQUERYREMOVE");
            kind = Class::Removal;
            break;
        case device_change::kQueryRemoveFailed:
            DEVIO_LOG("Win32Bus", 3, "processDeviceChange",
                      "Win32Bus::processDeviceChange DBT_DEVICEQUERYREMOVEFAILED");
            kind = Class::Arrival;
            break;
        case device_change::kRemovePending:
            DEVIO_LOG("Win32Bus", 3, "processDeviceChange",
                      "Win32Bus::processDeviceChange DBT_DEVICEREMOVEPENDING");
            kind = Class::Removal;
            break;
        case device_change::kRemoveComplete:
            DEVIO_LOG("Win32Bus", 3, "processDeviceChange",
                      "Win32Bus::processDeviceChange DBT_DEVICEREMOVECOMPLETE");
            kind = Class::Removal;
            break;
        default:
            DEVIO_LOG("Win32Bus", 3, "processDeviceChange", "Win32Bus::processDeviceChange DBT=%d",
                      static_cast<int>(event));
            break;
    }

    if (header != nullptr && kind == Class::Removal) {
        if (header->device_type == device_change::kHandle) {
            DEVIO_LOG("Win32Bus", 3, "processDeviceChange",
                      "-hid- remove type=DBT_DEVTYP_HANDLE, handle=%08x",
                      static_cast<unsigned>(header->handle));
            closeTrackedHandle(header->notification, header->handle);
        } else if (header->device_type == device_change::kInterface) {
            DEVIO_LOG("Win32Bus", 3, "processDeviceChange",
                      "Win32Bus::processDeviceChange remove type=DBT_DEVTYP_DEVICEINTERFACE");
            if (header->interface_class == hid_class_) {
                DEVIO_LOG("Win32Bus", 3, "processDeviceChange",
                          "-hid- remove HID interface, path=%s", header->path.c_str());
                produceForPath(event, header->path, false);
            }
        } else {
            DEVIO_LOG("Win32Bus", 3, "processDeviceChange",
                      "Win32Bus::processDeviceChange remove type=%d",
                      static_cast<int>(header->device_type));
        }
    } else if (header != nullptr && kind == Class::Arrival) {
        if (header->device_type == device_change::kInterface) {
            DEVIO_LOG("Win32Bus", 3, "processDeviceChange",
                      "Win32Bus::processDeviceChange arrive type=DBT_DEVTYP_DEVICEINTERFACE");
            if (header->interface_class == hid_class_) {
                DEVIO_LOG("Win32Bus", 3, "processDeviceChange",
                          "-hid- arrive HID interface, path=%s", header->path.c_str());
                produceForPath(event, header->path, true);
            }
        } else {
            DEVIO_LOG("Win32Bus", 3, "processDeviceChange",
                      "Win32Bus::processDeviceChange arrive type=%d",
                      static_cast<int>(header->device_type));
        }
    }

    // The monitors and secondary buses see every message, after this bus.
    for (const auto& monitor : bluetooth_monitors_) monitor->process_wm_devicechange(event, header);
    for (const auto& secondary : secondary_busses_) {
        try {
            secondary->process_wm_devicechange(event, header);
        } catch (...) {
            DEVIO_LOG("Win32Bus", 1, "processDeviceChange",
                      "Win32Bus WM_DEVICECHANGE secondary_busses exception");
        }
    }
}

}  // namespace devio
