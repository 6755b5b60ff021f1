#pragma once

#include <memory>

namespace devio {

class IHardwareDevice;

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
