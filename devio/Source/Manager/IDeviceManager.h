#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Base/ErrorCode.h"
#include "Base/RunLoopQueue.h"

namespace devio {

class IDevice;

// The library's face towards a host: `CDevio` and `DeviceManager` both
// implement it, the first by forwarding to the second. The run-loop
// operations are called by the event fabric from any thread.
class IDeviceManager : public IRunLoopQueue {
public:
    // A device came or went.
    class ArrivalRemoval {
    public:
        using Interface = IDeviceManager;
        struct Names {
            const char* onDeviceArrival;
            const char* onDeviceRemoval;
        };
        virtual void onDeviceArrival(const std::shared_ptr<IDevice>& /*device*/) {}
        virtual void onDeviceRemoval(const std::shared_ptr<IDevice>& /*device*/) {}

    protected:
        ~ArrivalRemoval() = default;
    };

    // The host switched the library between active and inactive.
    class ActiveChanged {
    public:
        using Interface = IDeviceManager;
        struct Names {
            const char* onActiveChanged;
        };
        virtual void onActiveChanged(bool /*active*/) {}

    protected:
        ~ActiveChanged() = default;
    };

    // A failure that happened where no caller could receive it (an event
    // handler, a lazy start). `str` is a static text or null.
    class UnreportedError {
    public:
        using Interface = IDeviceManager;
        struct Names {
            const char* onUnreportedError;
        };
        virtual void onUnreportedError(const char* /*where*/, ErrorCode /*err*/,
                                       const char* /*str*/, unsigned long /*sys*/) {}

    protected:
        ~UnreportedError() = default;
    };

    // Asks the host to call `call_event_from_runloop` once on its own thread.
    class RunLoopEvent {
    public:
        using Interface = IDeviceManager;
        struct Names {
            const char* onRunLoopEvent;
        };
        virtual void onRunLoopEvent() {}

    protected:
        ~RunLoopEvent() = default;
    };

    virtual ~IDeviceManager() = default;

    // The library-wide software id: the setter keeps the low four bits; the
    // getter draws one of 10 to 14 when none is set yet.
    virtual void swid(unsigned value) = 0;
    virtual unsigned swid() = 0;
    // False while the host's session is not the active one.
    virtual bool is_active() = 0;
    // The eight boolean configuration items, 0 to 7. False, with `err` 76,
    // for another item; `out` may be null.
    virtual bool config_default(unsigned item, bool* out) = 0;
    virtual bool config_get(unsigned item, bool* out) = 0;

    // Produces `onUnreportedError` from the calling thread's error record,
    // when it holds an error.
    virtual void report_unreported_error(const char* where) = 0;

    // Runs the oldest queued delivery, if any. Called by the host, once per
    // `onRunLoopEvent` it received.
    virtual void call_event_from_runloop() = 0;
};

namespace event_names {
inline constexpr IDeviceManager::ArrivalRemoval::Names DeviceManagerArrivalRemoval{
    "DeviceManager::ArrivalRemoval::onDeviceArrival",
    "DeviceManager::ArrivalRemoval::onDeviceRemoval"};
inline constexpr IDeviceManager::ActiveChanged::Names DeviceManagerActiveChanged{
    "DeviceManager::ActiveChanged::onActiveChanged"};
inline constexpr IDeviceManager::UnreportedError::Names DeviceManagerUnreportedError{
    "DeviceManager::UnreportedError::onUnreportedError"};
inline constexpr IDeviceManager::RunLoopEvent::Names DeviceManagerRunLoopEvent{
    "DeviceManager::RunLoopEvent::onRunLoopEvent"};
}  // namespace event_names

}  // namespace devio
