#pragma once

#include <string>

namespace devio {

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
