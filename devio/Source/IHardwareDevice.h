#pragma once

#include <memory>
#include <vector>

#include "Byte.h"
#include "ErrorCode.h"

namespace devio {

// One hardware device: it opens, writes, delivers reads and tells when it is
// gone. Every concrete device produces Read, Write and Connect; wrapper
// devices also receive Read and Write from the device they wrap.
class IHardwareDevice {
public:
    // One input report, whole, with its report id first. An empty report with
    // a non-zero `sys_error` is a failed read. `size` is what was asked of
    // the platform.
    class Read {
    public:
        using Interface = IHardwareDevice;
        struct Names {
            const char* onRead;
        };
        virtual void onRead(std::vector<Byte> /*report*/, bool /*rewrite_index*/,
                            unsigned /*sys_error*/, unsigned /*size*/) {}

    protected:
        ~Read() = default;
    };

    // The outcome of one write, good or bad.
    class Write {
    public:
        using Interface = IHardwareDevice;
        struct Names {
            const char* onWrite;
        };
        virtual void onWrite(std::vector<Byte> /*report*/, ErrorCode /*err*/, unsigned /*value*/) {}

    protected:
        ~Write() = default;
    };

    // A device behind a receiver or a radio gained or lost its link.
    class Connect {
    public:
        using Interface = IHardwareDevice;
        struct Names {
            const char* onConnect;
            const char* onDisconnect;
        };
        virtual void onConnect(const std::shared_ptr<IHardwareDevice>& /*device*/) {}
        virtual void onDisconnect(const std::shared_ptr<IHardwareDevice>& /*device*/) {}

    protected:
        ~Connect() = default;
    };

    virtual ~IHardwareDevice() = default;
};

// Each device class produces Read and Write under its own name.
namespace event_names {
inline constexpr IHardwareDevice::Read::Names Win32DeviceRead{"Win32Device::Read::onRead"};
inline constexpr IHardwareDevice::Read::Names CombinerDeviceRead{"CombinerDevice::Read::onRead"};
inline constexpr IHardwareDevice::Read::Names PairingDeviceRead{"PairingDevice::Read::onRead"};
inline constexpr IHardwareDevice::Read::Names GattDeviceRead{"GattDevice::Read::onRead"};
inline constexpr IHardwareDevice::Read::Names BraidDeviceRead{"BraidDevice::Read::onRead"};

inline constexpr IHardwareDevice::Write::Names Win32DeviceWrite{"Win32Device::Write::onWrite"};
inline constexpr IHardwareDevice::Write::Names CombinerDeviceWrite{
    "CombinerDevice::Write::onWrite"};
inline constexpr IHardwareDevice::Write::Names PairingDeviceWrite{"PairingDevice::Write::onWrite"};
inline constexpr IHardwareDevice::Write::Names GattDeviceWrite{"GattDevice::Write::onWrite"};
inline constexpr IHardwareDevice::Write::Names BraidDeviceWrite{"BraidDevice::Write::onWrite"};

inline constexpr IHardwareDevice::Connect::Names BraidDeviceConnect{
    "BraidDevice::Connect::onConnect", "BraidDevice::Connect::onDisconnect"};
inline constexpr IHardwareDevice::Connect::Names PairingBusConnect{
    "PairingBus::Connect::onConnect", "PairingBus::Connect::onDisconnect"};
}  // namespace event_names

}  // namespace devio
