#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Windows/IWin32System.h"

namespace devio {

struct BluetoothChange;

// Message numbers of the bus's window, as the platform numbers them.
namespace window_message {
inline constexpr unsigned kDestroy = 2;
inline constexpr unsigned kClose = 16;
inline constexpr unsigned kPowerBroadcast = 536;
inline constexpr unsigned kDeviceChange = 537;
inline constexpr unsigned kUser = 1024;
// wParam of kPowerBroadcast once the machine has resumed.
inline constexpr std::uintptr_t kResumeAutomatic = 18;
}  // namespace window_message

// Device-change events (wParam of kDeviceChange).
namespace device_change {
inline constexpr unsigned kArrival = 0x8000;
inline constexpr unsigned kQueryRemove = 0x8001;
inline constexpr unsigned kQueryRemoveFailed = 0x8002;
inline constexpr unsigned kRemovePending = 0x8003;
inline constexpr unsigned kRemoveComplete = 0x8004;
// Kinds of header.
inline constexpr std::uint32_t kInterface = 5;
inline constexpr std::uint32_t kHandle = 6;
}  // namespace device_change

// What a device-change message tells: of an interface, its class and path;
// of a handle registration, the notification and the file handle it
// watches.
struct DeviceChangeHeader {
    std::uint32_t device_type = 0;
    std::string interface_class;
    std::string path;
    std::uintptr_t notification = 0;
    PlatformHandle handle = kInvalidHandle;
    // What a custom event of the Bluetooth stack tells; null for others.
    std::shared_ptr<const BluetoothChange> bluetooth;
};

// One message taken from the window's queue. For kDeviceChange `header`
// is what lParam points at (it may be null); for kUser lParam is the
// sender's record.
struct WindowMessage {
    unsigned message = 0;
    std::uintptr_t wparam = 0;
    std::intptr_t lparam = 0;
    std::shared_ptr<const DeviceChangeHeader> header;
    // The platform's bookkeeping for a message someone waits on.
    std::shared_ptr<void> reply;
};

using WindowProcedure = std::function<std::intptr_t(const WindowMessage&)>;

// The platform's side of the bus's window thread: one hidden window whose
// queue receives device arrival, removal, removal-request,
// removal-failed and resume notifications in the order they happened, and
// the messages that other threads post or send to it. One object serves
// one window and one thread.
//
// create_window, get_message, dispatch_message, post_quit_message and the
// registrations are called on the window thread only; post_message and
// send_message_timeout from any thread. Failures give false or 0 with the
// platform's error number in `sys_error`. The implementation says what it
// locks; no call holds a lock while a window procedure runs.
class IDeviceChangeSystem {
public:
    virtual ~IDeviceChangeSystem() = default;

    // Makes the window on the calling thread, which from now on is the
    // window thread, with `procedure` as its window procedure.
    virtual bool create_window(WindowProcedure procedure, std::uint32_t& sys_error) = 0;
    // Waits for the next message. 1: a message; 0: the quit message; -1: a
    // failure.
    virtual int get_message(WindowMessage& out) = 0;
    // Runs the window procedure on a message and, for a sent one, releases
    // its sender with the result.
    virtual std::intptr_t dispatch_message(const WindowMessage& message) = 0;
    // What the platform does with a message the procedure leaves alone: it
    // turns kClose into kDestroy.
    virtual std::intptr_t default_window_procedure(const WindowMessage& message) = 0;
    virtual void post_quit_message(int code) = 0;

    // Queues a message without waiting; false once the window is gone.
    virtual bool post_message(unsigned message, std::uintptr_t wparam, std::intptr_t lparam) = 0;
    // Hands a message to the window thread and waits until the procedure
    // has served it, at most `timeout_ms`. A message not yet taken when the
    // time is up is withdrawn and gives false; one being served is waited
    // for to its end, because lParam lives with the caller. From the window
    // thread itself this is a direct call of the procedure.
    virtual bool send_message_timeout(unsigned message, std::uintptr_t wparam, std::intptr_t lparam,
                                      std::uint32_t timeout_ms, std::intptr_t& result) = 0;

    // Removal requests for the device behind one open file handle arrive as
    // kHandle headers with the notification returned here.
    virtual std::uintptr_t register_handle_notification(PlatformHandle handle,
                                                        std::uint32_t& sys_error) = 0;
    // Arrivals and removals of every interface of a class arrive as
    // kInterface headers.
    virtual std::uintptr_t register_interface_notification(const std::string& interface_class,
                                                           std::uint32_t& sys_error) = 0;
    virtual bool unregister_notification(std::uintptr_t notification, std::uint32_t& sys_error) = 0;
};

// The implementation for the platform this library is built for, over the
// platform system that the bus made.
std::shared_ptr<IDeviceChangeSystem> makePlatformDeviceChange(
    const std::shared_ptr<IWin32System>& system);

}  // namespace devio
