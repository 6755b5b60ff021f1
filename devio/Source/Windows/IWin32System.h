#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Base/Byte.h"
#include "Hid/HidCaps.h"

namespace devio {

// A handle the platform gave out: a device node, or an event.
using PlatformHandle = std::intptr_t;
inline constexpr PlatformHandle kInvalidHandle = -1;

struct HidAttributes {
    std::uint16_t vendor_id = 0;
    std::uint16_t product_id = 0;
    std::uint16_t version = 0;
};

// The parsed description of one interface; what it holds is the platform's.
struct HidPreparsedData;

// One interface found by enumeration: its path (UTF-8, lower case) and the
// platform's number for its device.
struct HidInterface {
    std::string path;
    std::uint32_t devnode = 0;
};

enum class ReadOutcome { Report, Stopped, Failed, Disconnected };
// GeneralFailure: the device refused the report in a way that a retry may
// overcome; the command engine retries it.
enum class WriteOutcome { Done, TimedOut, Failed, GeneralFailure };

// Everything the bus and device logic asks of the machine. One implementation
// per platform, made by makePlatformSystem(); tests point it at a prepared
// tree. Operations are safe to call from any thread; the implementation says
// what it locks. Failures give false, an invalid handle or a null pointer
// with the platform's error number in `sys_error`; enumeration throws
// DevioException.
class IWin32System {
public:
    virtual ~IWin32System() = default;

    // The class of HID interfaces, for enumeration and change notifications.
    virtual std::string hid_interface_class() = 0;
    // Every interface of a class present now, in a stable order.
    virtual std::vector<HidInterface> enumerate_interfaces(const std::string& interface_class) = 0;

    // Opens an interface for shared reading and writing without blocking.
    virtual PlatformHandle open_interface(const std::string& path, std::uint32_t& sys_error) = 0;
    virtual void close_handle(PlatformHandle handle) = 0;

    virtual bool get_attributes(PlatformHandle handle, HidAttributes& out,
                                std::uint32_t& sys_error) = 0;
    virtual std::shared_ptr<const HidPreparsedData> get_preparsed_data(
        PlatformHandle handle, std::uint32_t& sys_error) = 0;
    virtual bool get_caps(const HidPreparsedData& data, hid::CollectionCaps& out,
                          std::uint32_t& sys_error) = 0;
    // Positive: `out` holds the name. Zero: the device has none. Negative:
    // the query failed.
    virtual int get_product_string(PlatformHandle handle, std::string& out,
                                   std::uint32_t& sys_error) = 0;

    // The device tree. Instance ids are lower case; a lookup that fails gives
    // an empty string, and `setupdi_parent` of a root gives its argument.
    virtual std::string setupdi_instance_from_path(const std::string& path) = 0;
    virtual std::string setupdi_parent(const std::string& instance) = 0;
    virtual std::string setupdi_instance_from_devnode(std::uint32_t devnode) = 0;
    virtual std::string setupdi_path_from_instance(const std::string& instance,
                                                   const std::string& interface_class) = 0;

    // A stop event: signalled, it ends a pending read_report at once and stays
    // signalled until reset.
    virtual PlatformHandle create_event(std::uint32_t& sys_error) = 0;
    virtual bool set_event(PlatformHandle event) = 0;
    virtual bool reset_event(PlatformHandle event) = 0;

    // Waits for one input report or the stop event. The report fills `buffer`
    // from its start; the rest of the buffer is zeroed.
    virtual ReadOutcome read_report(PlatformHandle handle, PlatformHandle stop_event,
                                    std::vector<Byte>& buffer, std::uint32_t& sys_error) = 0;
    // Sends one report, waiting at most `timeout_ms` for the device to take it.
    virtual WriteOutcome write_report(PlatformHandle handle, const std::vector<Byte>& report,
                                      std::uint32_t timeout_ms, std::uint32_t& sys_error) = 0;
};

// The implementation for the platform this library is built for.
std::shared_ptr<IWin32System> makePlatformSystem();

}  // namespace devio
