#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Base/Byte.h"
#include "Windows/IWin32System.h"

namespace devio {

// The interface class of the devices that offer the maker's GATT service,
// for listing and change notifications; the service has the same UUID as
// its fixed-length I/O characteristic.
inline constexpr const char kVxpGattClass[] = "vxp-gatt";
inline constexpr const char kVxpGattService[] = "00010000-0000-1000-8000-011f20002e5a";
inline constexpr const char kVxpGattFixed[] = "00010000-0000-1000-8000-011f20002e5a";
inline constexpr const char kVxpGattVariable[] = "00010001-0000-1000-8000-011f20002e5a";

// Properties of a characteristic, as bits.
namespace gatt_flag {
inline constexpr std::uint32_t kBroadcast = 0x1;
inline constexpr std::uint32_t kRead = 0x2;
inline constexpr std::uint32_t kWrite = 0x4;
inline constexpr std::uint32_t kWriteWithoutResponse = 0x8;
inline constexpr std::uint32_t kSignedWrite = 0x10;
inline constexpr std::uint32_t kNotify = 0x20;
inline constexpr std::uint32_t kIndicate = 0x40;
inline constexpr std::uint32_t kExtended = 0x80;
}  // namespace gatt_flag

// The descriptor type of a client characteristic configuration.
inline constexpr int kGattClientConfiguration = 2;

// One attribute of a remote GATT database. `object` names it for the
// platform; `uuid` is lower case, 36 characters, or a 16-bit short form
// in `short_uuid` (non-zero) when the UUID is one of the standard base.
struct GattAttribute {
    std::string object;
    std::string uuid;
    std::uint16_t short_uuid = 0;
    std::uint16_t attr = 0;  // the attribute handle
};

struct GattService : GattAttribute {};

struct GattCharacteristic : GattAttribute {
    std::uint32_t flags = 0;  // gatt_flag bits
};

struct GattDescriptor : GattAttribute {
    std::string characteristic;  // the object of its characteristic
    int type = 0;                // kGattClientConfiguration, or 0 for others
};

// The GATT side of the platform seam. Any thread may call; callbacks come
// on a thread of the platform's own. Results are 0 or the platform's error
// number; calls that ask the remote device or the Bluetooth stack wait for
// it a bounded time.
class IGattSystem {
public:
    using ValueChanged = std::function<void(const std::vector<Byte>& value)>;

    virtual ~IGattSystem() = default;

    // The devices that offer the maker's service now, as interface paths
    // (lower case) in a stable order; none where there is no Bluetooth
    // stack to ask.
    virtual std::vector<HidInterface> interfaces() = 0;
    // A handle for one device's GATT database; kInvalidHandle with the
    // error in `sys_error` when the device is not there.
    virtual PlatformHandle open(const std::string& path, std::uint32_t& sys_error) = 0;
    virtual void close(PlatformHandle handle) = 0;
    // Vendor and product ids of the device behind a path; false when
    // the device does not tell them.
    virtual bool ids(const std::string& path, std::uint16_t& vid, std::uint16_t& pid) = 0;

    // Discovery, in attribute order, at most `limit` entries each.
    virtual std::uint32_t services(PlatformHandle handle, std::size_t limit,
                                   std::vector<GattService>& out) = 0;
    virtual std::uint32_t characteristics(PlatformHandle handle, const GattService& service,
                                          std::size_t limit,
                                          std::vector<GattCharacteristic>& out) = 0;
    virtual std::uint32_t descriptors(PlatformHandle handle,
                                      const GattCharacteristic& characteristic, std::size_t limit,
                                      std::vector<GattDescriptor>& out) = 0;
    // The value of a characteristic or descriptor as the stack knows it, at
    // most `limit` bytes.
    virtual std::uint32_t read_value(PlatformHandle handle, const GattAttribute& attribute,
                                     std::size_t limit, std::vector<Byte>& out) = 0;

    // Writes a client configuration: notifications on or off.
    virtual std::uint32_t set_notify(PlatformHandle handle, const GattDescriptor& descriptor,
                                     bool notify) = 0;
    // `callback` hears every value change of the characteristic until the
    // registration ends; `event` names it. Once unregister returns, the
    // callback runs no more, except where unregister is called from the
    // callback itself, which then ends normally.
    virtual std::uint32_t register_value_changed(PlatformHandle handle,
                                                 const GattCharacteristic& characteristic,
                                                 ValueChanged callback, std::uintptr_t& event) = 0;
    virtual std::uint32_t unregister_value_changed(std::uintptr_t event) = 0;
    virtual std::uint32_t write_value(PlatformHandle handle,
                                      const GattCharacteristic& characteristic,
                                      const std::vector<Byte>& value, bool without_response) = 0;
};

// The implementation for this platform, over the system that the platform
// bus made.
std::shared_ptr<IGattSystem> makePlatformGatt(const std::shared_ptr<IWin32System>& system);

}  // namespace devio
