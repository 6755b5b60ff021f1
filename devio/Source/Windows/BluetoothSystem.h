#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Windows/IWin32System.h"

namespace devio {

// The interface class of Bluetooth radios: an interface notification of this
// class makes the window receive radio arrivals and removals (kInterface
// headers whose path is the radio's) and the Bluetooth stack's custom events.
inline constexpr const char kBluetoothRadioClass[] = "bluetooth-radio";

namespace device_change {
// A custom event of a driver; its header has device type kHandle and carries
// a BluetoothChange.
inline constexpr unsigned kCustomEvent = 0x8006;
}  // namespace device_change

// Flags of a remote device as the radio describes it.
namespace bdif {
inline constexpr std::uint32_t kAddress = 0x1;
inline constexpr std::uint32_t kCod = 0x2;
inline constexpr std::uint32_t kName = 0x4;
inline constexpr std::uint32_t kPaired = 0x8;
inline constexpr std::uint32_t kPersonal = 0x10;
inline constexpr std::uint32_t kConnected = 0x20;
inline constexpr std::uint32_t kShortName = 0x40;
inline constexpr std::uint32_t kVisible = 0x80;
inline constexpr std::uint32_t kSspSupported = 0x100;
inline constexpr std::uint32_t kSspPaired = 0x200;
inline constexpr std::uint32_t kSspMitmProtected = 0x400;
inline constexpr std::uint32_t kRssi = 0x1000;
inline constexpr std::uint32_t kEir = 0x2000;
inline constexpr std::uint32_t kBr = 0x4000;
inline constexpr std::uint32_t kLe = 0x8000;
inline constexpr std::uint32_t kLePaired = 0x10000;
inline constexpr std::uint32_t kLePersonal = 0x20000;
inline constexpr std::uint32_t kLeMitmProtected = 0x40000;
inline constexpr std::uint32_t kLePrivacyEnabled = 0x80000;
}  // namespace bdif

// The HID interrupt channel: its opening and closing is what tells that a
// classic device connected or went.
inline constexpr std::uint16_t kPsmHidInterrupt = 19;

// One event of the Bluetooth stack about a remote device, told through the
// radio it concerns.
struct BluetoothChange {
    enum Kind {
        L2cap,         // a channel opened or closed: psm, connected, initiated
        RadioInRange,  // the device's flags changed: current, previous, class, name
    };
    Kind kind = RadioInRange;
    std::string radio;  // the radio's path
    std::uint64_t address = 0;
    std::uint16_t psm = 0;
    bool connected = false;
    bool initiated = false;
    std::uint32_t current_flags = 0;
    std::uint32_t previous_flags = 0;
    std::uint32_t class_of_device = 0;
    std::string name;
};

// What a radio knows of one remote device.
struct BluetoothDeviceInfo {
    bool connected = false;
    bool remembered = false;  // paired to this radio
    std::uint32_t class_of_device = 0;
    std::string name;
};

// The Bluetooth side of the platform seam. Operations are safe to call from
// any thread; each one that asks the Bluetooth stack waits for it at most a
// bounded time, and the implementation says what it locks. Failures give
// false, empty or a non-zero platform error number.
class IBluetoothSystem {
public:
    virtual ~IBluetoothSystem() = default;

    // Whether the machine's Bluetooth stack can be asked; the reason in
    // `why` when not.
    virtual bool available(std::string& why) = 0;
    // The radios present now, by path, in order.
    virtual std::vector<std::string> radios(std::uint32_t& sys_error) = 0;
    // 0 with `out` filled, or the platform's error (ENOENT: the radio does
    // not know the device).
    virtual std::uint32_t device_info(const std::string& radio, std::uint64_t address,
                                      BluetoothDeviceInfo& out) = 0;
    // The address of the Bluetooth device behind a HID path, and its bearer
    // as a bus type (2 classic, 3 Low Energy); false for a path that is no
    // Bluetooth device. Needs no Bluetooth stack.
    virtual bool address_of_path(const std::string& path, std::uint64_t& address, int& bustype) = 0;
    // The bearer as the Bluetooth stack knows it: 2, 3, or 0 when the stack
    // does not know the device.
    virtual int bearer(std::uint64_t address) = 0;
    // The radio that a device is paired to, or empty.
    virtual std::string radio_of(std::uint64_t address) = 0;
};

// The implementation for this platform, over the system that the platform
// bus made.
std::shared_ptr<IBluetoothSystem> makePlatformBluetooth(
    const std::shared_ptr<IWin32System>& system);

// "%02X%02X:%02X:%02X%02X%02X", highest byte first.
std::string bluetoothAddressText(std::uint64_t address);

}  // namespace devio
