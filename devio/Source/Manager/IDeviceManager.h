#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Base/ErrorCode.h"
#include "Base/RunLoopQueue.h"

namespace devio {

class IDevice;
class IHardwareBus;
class IHardwareDevice;

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

    // Every device present now, in path order; starts the library (bus
    // stack, enumeration) on the first call. Empty with `err` 0 when there
    // is none; empty with the reason in the record when the start failed.
    virtual std::vector<std::shared_ptr<IDevice>> devices() = 0;
    // The same, for the devices whose hardware belongs to `bus`.
    virtual std::vector<std::shared_ptr<IDevice>> devices_on_bus(
        const std::shared_ptr<IHardwareBus>& bus) = 0;
    // The library-wide software id: the setter keeps the low four bits; the
    // getter draws one of 10 to 14 when none is set yet.
    virtual void swid(unsigned value) = 0;
    virtual unsigned swid() = 0;
    // False while the host's session is not the active one; a host that
    // loses the console says so, and devices let their hardware go.
    virtual bool is_active() = 0;
    virtual void set_active(bool active) = 0;

    // Produces `onUnreportedError` from the calling thread's error record,
    // when it holds an error.
    virtual void report_unreported_error(const char* where) = 0;

    // Runs the oldest queued delivery, if any. Called by the host, once per
    // `onRunLoopEvent` it received.
    virtual void call_event_from_runloop() = 0;

    // Where devices and buses keep their files (feature caches, pairing
    // cache); a separator is added when missing.
    virtual void persistent_data_directory(const std::string& directory) = 0;
    // The eight boolean configuration items, 0 to 7. False, with `err` 76,
    // for another item; `out` may be null. Setting an item after the start
    // rebuilds the whole bus stack.
    virtual bool config_default(unsigned item, bool* out) = 0;
    virtual bool config_get(unsigned item, bool* out) = 0;
    virtual bool config_set(unsigned item, bool value) = 0;
    // Builds the bus stack on the platform bus and adds it.
    virtual bool connectToHardwareBusses() = 0;
    // A device for `hw`: a receiver's bus when `kind` is 0 and `pid` is a
    // receiver's, else a plain device.
    virtual std::shared_ptr<IDevice> makeDevice(const std::shared_ptr<IHardwareDevice>& hw,
                                                unsigned kind, unsigned pid) = 0;
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
