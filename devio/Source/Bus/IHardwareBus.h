#pragma once

#include <memory>
#include <string>
#include <vector>

namespace devio {

class IHardwareDevice;
class IBluetoothBus;
class IHardwareSecondaryBus;

// A bus finds hardware devices and announces their arrival and removal.
// Every concrete bus produces PlugUnplug; filter buses also receive it from
// the bus below them.
class IHardwareBus {
public:
    class PlugUnplug {
    public:
        using Interface = IHardwareBus;
        struct Names {
            const char* onPlug;
            const char* onUnplug;
            const char* onPowerChange;
        };
        virtual void onPlug(const std::shared_ptr<IHardwareDevice>& /*device*/) {}
        virtual void onUnplug(const std::shared_ptr<IHardwareDevice>& /*device*/) {}
        virtual void onPowerChange(bool /*standBy*/) {}

    protected:
        ~PlugUnplug() = default;
    };

    virtual ~IHardwareBus() = default;

    // Starts the bus if need be and returns every device present now. An
    // empty list with no failure leaves err = 0 in the thread's record; a
    // failure leaves its reason there.
    virtual std::vector<std::shared_ptr<IHardwareDevice>> devices() = 0;
    // Kept for its slot; nothing overrides or calls it.
    virtual int reserved() { return 0; }
    // The monitors that watch pairing.
    virtual std::vector<std::shared_ptr<IBluetoothBus>> bluetooth_busses() { return {}; }
    // Where the bus may keep files.
    virtual void persistent_data_directory(const std::string& /*directory*/) {}
    // True only for a bus whose devices may come in pieces.
    virtual bool needs_combiner() { return false; }
    virtual std::vector<std::shared_ptr<IHardwareSecondaryBus>> secondary_busses() { return {}; }
    // Re-examines what the bus believes about pairing.
    virtual void refresh() {}
};

// A bus inside a primary bus that also receives the primary bus's
// device-change notifications.
class IHardwareSecondaryBus : public IHardwareBus {
public:
    // `header` is the platform's record of the change, or null.
    virtual void process_wm_devicechange(unsigned /*event*/, const void* /*header*/) {}
};

// Each bus class produces the event under its own name.
namespace event_names {
inline constexpr IHardwareBus::PlugUnplug::Names Win32BusPlugUnplug{
    "Win32Bus::PlugUnplug::onPlug", "Win32Bus::PlugUnplug::onUnplug",
    "Win32Bus::PlugUnplug::onPowerChange"};
inline constexpr IHardwareBus::PlugUnplug::Names CombinerBusPlugUnplug{
    "CombinerBus::PlugUnplug::onPlug", "CombinerBus::PlugUnplug::onUnplug",
    "CombinerBus::PlugUnplug::onPowerChange"};
inline constexpr IHardwareBus::PlugUnplug::Names PairingBusPlugUnplug{
    "PairingBus::PlugUnplug::onPlug", "PairingBus::PlugUnplug::onUnplug",
    "PairingBus::PlugUnplug::onPowerChange"};
inline constexpr IHardwareBus::PlugUnplug::Names GattBusPlugUnplug{
    "GattBus::PlugUnplug::onPlug", "GattBus::PlugUnplug::onUnplug",
    "GattBus::PlugUnplug::onPowerChange"};
inline constexpr IHardwareBus::PlugUnplug::Names BraidBusPlugUnplug{
    "BraidBus::PlugUnplug::onPlug", "BraidBus::PlugUnplug::onUnplug",
    "BraidBus::PlugUnplug::onPowerChange"};
}  // namespace event_names

}  // namespace devio
