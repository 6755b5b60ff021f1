#pragma once

#include <memory>
#include <string>

namespace devio {

class IBluetoothDevice;

// Watches the Bluetooth radios of the machine and the devices paired to them.
class IBluetoothBus {
public:
    // A radio came or went. The external event is for other objects, the
    // internal one for the bus itself; both are produced under the same names.
    class RadioArrivalRemovalExternal {
    public:
        using Interface = IBluetoothBus;
        struct Names {
            const char* onRadioArrival;
            const char* onRadioRemoval;
        };
        virtual void onRadioArrival(const std::string& /*radio*/) {}
        virtual void onRadioRemoval(const std::string& /*radio*/) {}

    protected:
        ~RadioArrivalRemovalExternal() = default;
    };

    class RadioArrivalRemovalInternal {
    public:
        using Interface = IBluetoothBus;
        using Names = RadioArrivalRemovalExternal::Names;
        virtual void onRadioArrival(const std::string& /*radio*/) {}
        virtual void onRadioRemoval(const std::string& /*radio*/) {}

    protected:
        ~RadioArrivalRemovalInternal() = default;
    };

    virtual ~IBluetoothBus() = default;

    // The paired device that a HID path belongs to, or null. Answers,
    // negative ones included, are kept for the life of the bus.
    virtual std::shared_ptr<IBluetoothDevice> device_paired_on_path(const std::string& path) = 0;

    // The platform bus hands on each of its device-change messages once it
    // has handled them; `header` is the platform's record, or null.
    virtual void process_wm_devicechange(unsigned /*event*/, const void* /*header*/) {}
};

namespace event_names {
inline constexpr IBluetoothBus::RadioArrivalRemovalExternal::Names RadioArrivalRemoval{
    "RadioArrivalRemovalInternal::onRadioArrival", "RadioArrivalRemovalInternal::onRadioRemoval"};
}  // namespace event_names

}  // namespace devio
