#pragma once

#include <memory>
#include <string>

namespace devio {

class IBluetoothBus;

// The pairing state of a device paired to a radio that has not arrived yet.
inline constexpr const char* PAIRING_UNKNOWN = "unknown";

// Passed to `connected_radio` as the bus type when no device path may be
// consulted to resolve an unknown radio.
inline constexpr int kBusTypeNoPathLookup = 5;

// One paired Bluetooth device as the radio sees it. `radio` is a radio path
// text: a path when paired, empty when unpaired, "unknown" when not known yet.
class IBluetoothDevice {
public:
    class BtConnect {
    public:
        using Interface = IBluetoothDevice;
        struct Names {
            const char* onBtConnect;
            const char* onBtPairingResolve;
            const char* onBtDisconnect;
        };
        virtual void onBtConnect(const std::string& /*radio*/) {}
        virtual void onBtPairingResolve(const std::string& /*radio*/) {}
        virtual void onBtDisconnect() {}

    protected:
        ~BtConnect() = default;
    };

    class BtFastConnect {
    public:
        using Interface = IBluetoothDevice;
        struct Names {
            const char* onBtFastConnect;
            const char* onBtFastDisconnect;
        };
        virtual void onBtFastConnect(const std::string& /*radio*/) {}
        virtual void onBtFastDisconnect() {}

    protected:
        ~BtFastConnect() = default;
    };

    class BtUnpair {
    public:
        using Interface = IBluetoothDevice;
        struct Names {
            const char* onBtUnpair;
        };
        virtual void onBtUnpair(const std::string& /*radio*/) {}

    protected:
        ~BtUnpair() = default;
    };

    virtual ~IBluetoothDevice() = default;

    // Whether the radio says the device is connected now. When the radio
    // cannot be asked and nothing is known yet, the answer is true.
    virtual bool connected() = 0;
    // The radio the device is connected through, or empty. `path` (a HID
    // path of the device) may be used to resolve a PAIRING_UNKNOWN radio,
    // unless `bustype` is kBusTypeNoPathLookup.
    virtual std::string connected_radio(const std::string& path, int bustype) = 0;
    // Checks that the device is still paired to `radio`; empties it when the
    // radio says it is not. False when the radio could not be asked.
    virtual bool verify_pairing(std::string& radio) = 0;
    virtual bool radio_present(const std::string& radio) = 0;
    // 2 for classic Bluetooth, 3 for Low Energy.
    virtual int bustype() = 0;
    virtual std::string name() = 0;
    virtual bool verify_connection_following_timeout() = 0;
    virtual std::shared_ptr<IBluetoothBus> bus() = 0;
    // The address as text: "%02X%02X:%02X:%02X%02X%02X", highest byte first.
    virtual std::string address() = 0;
};

// The pairing-resolve event is logged as "onBtPairingUpdate"; log readers
// search for that name.
namespace event_names {
inline constexpr IBluetoothDevice::BtConnect::Names BluetoothMicrosoftDeviceBtConnect{
    "BluetoothMicrosoftDevice::BtConnect::onBtConnect",
    "BluetoothMicrosoftDevice::BtConnect::onBtPairingUpdate",
    "BluetoothMicrosoftDevice::BtConnect::onBtDisconnect"};
inline constexpr IBluetoothDevice::BtFastConnect::Names BluetoothMicrosoftDeviceBtFastConnect{
    "BluetoothMicrosoftDevice::BtFastConnect::onBtFastConnect",
    "BluetoothMicrosoftDevice::BtFastConnect::onBtFastDisconnect"};
inline constexpr IBluetoothDevice::BtUnpair::Names BluetoothMicrosoftDeviceBtUnpair{
    "BluetoothMicrosoftDevice::BtUnpair::onBtUnpair"};
}  // namespace event_names

}  // namespace devio
