#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Base/Byte.h"
#include "Base/ErrorCode.h"

namespace devio {

class IHardwareBus;

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

    // True when data can flow now.
    virtual bool connected() = 0;
    // Idempotent: when already open, verifies and returns true. On false the
    // thread's error record says why.
    virtual bool open() = 0;
    // Releases what open took; may run on the device's own read thread.
    virtual void close() = 0;
    // Sends one report, opening the device if need be; the outcome is also
    // produced as onWrite. `blocking` means the caller waits for an answer
    // that only a running read path can deliver.
    virtual bool write(std::vector<Byte> report, bool blocking) = 0;
    // The owning bus, or null when it is gone.
    virtual std::shared_ptr<IHardwareBus> bus() = 0;
    // The identity of the device, lower case: objects are matched by it.
    virtual std::string path() = 0;
    virtual int pid() = 0;
    virtual std::string name() = 0;
    virtual int secondary_id() { return 0; }
    virtual int bustype() { return 0; }
    virtual int busport() { return 0; }
    virtual void before_command() {}
    virtual int default_timeout() { return 3000; }
    virtual int response_token() { return 0; }
    virtual void response_seen(int /*token*/) {}
    virtual int hw_value() { return 0; }
    // False when a command timed out because the device is gone.
    virtual bool verify_connection_following_timeout() { return true; }
    // Pieces of one device give the same key; a whole device gives its path.
    virtual std::string combine_key() { return path(); }
    // The collection bits this device serves, and those the whole device
    // needs: 2 and 2 for a single long collection.
    virtual int collection_id() { return 2; }
    virtual int collections_expected() { return 2; }
    // The largest report the device takes, in bytes.
    virtual int max_report_size() { return 20; }
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
