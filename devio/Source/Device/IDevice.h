#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Base/Byte.h"
#include "Base/ErrorCode.h"

namespace devio {

class IDeviceManager;
class IFeature;
class IHardwareBus;

// The logical device that hosts talk to, standing on one hardware device.
class IDevice {
public:
    // How a received report was classified.
    enum ReportType : unsigned {
        ReportIgnored = 0,        // too short, for another index, or of an unknown kind
        ReportResponse = 1,       // it completed the pending command
        ReportOtherSoftware = 2,  // a response to somebody else, or an unexpected one
        ReportNotification = 3,
    };

    class Report {
    public:
        using Interface = IDevice;
        struct Names {
            const char* onReport;
        };
        virtual void onReport(const std::vector<Byte>& /*report*/, unsigned /*sys_error*/,
                              unsigned /*size*/, ReportType /*type*/) {}

    protected:
        ~Report() = default;
    };

    class WriteReport {
    public:
        using Interface = IDevice;
        struct Names {
            const char* onWriteReport;
        };
        virtual void onWriteReport(const std::vector<Byte>& /*report*/, ErrorCode /*err*/,
                                   unsigned /*value*/) {}

    protected:
        ~WriteReport() = default;
    };

    class Connect {
    public:
        using Interface = IDevice;
        struct Names {
            const char* onConnect;
            const char* onDisconnect;
            const char* onFirmwareChanged;
        };
        virtual void onConnect(const std::shared_ptr<IDevice>& /*device*/,
                               bool /*device_configured_by_us*/) {}
        virtual void onDisconnect(const std::shared_ptr<IDevice>& /*device*/) {}
        virtual void onFirmwareChanged(const std::shared_ptr<IDevice>& /*device*/) {}

    protected:
        ~Connect() = default;
    };

    class ConfigChange {
    public:
        using Interface = IDevice;
        struct Names {
            const char* onConfigChange;
        };
        virtual void onConfigChange() {}

    protected:
        ~ConfigChange() = default;
    };

    virtual ~IDevice() = default;

    virtual bool initDevice(const std::shared_ptr<IDeviceManager>& manager) = 0;
    virtual void uninitDevice() = 0;
    virtual bool connected() = 0;
    virtual bool removed() = 0;
    virtual int bustype() = 0;
    virtual int busport() = 0;
    virtual std::shared_ptr<IHardwareBus> bus() = 0;
    virtual std::string path() = 0;
    virtual int pid() = 0;
    virtual std::string name() = 0;
    // The software id that our commands carry now.
    virtual unsigned swid() = 0;
    virtual int secondary_id() = 0;
    // Drops what is known of the device's features and their answers; the
    // root object stays.
    virtual void forget() = 0;
    virtual std::weak_ptr<IDeviceManager> manager() = 0;
    // The feature with this id, loaded on first need; empty with
    // `NotPresent` when the device lacks it.
    virtual std::shared_ptr<IFeature> feature_by_id(unsigned id) = 0;
    // Every feature of the device, in index order.
    virtual std::vector<std::shared_ptr<IFeature>> features() = 0;
    // Writes one report and does not wait for an answer. `wait_ready` makes
    // sure first that the read path runs, so that an answer cannot be lost.
    virtual bool sendCommand(const std::vector<Byte>& report, bool wait_ready) = 0;
    // One command and its answer, retried over lost answers and software id
    // collisions. `cache_mode` 1 may answer from the cache of responses.
    // `match` lists parameter positions that the answer must echo.
    virtual bool sendSynchronousCommand(const std::vector<Byte>& command,
                                        std::vector<Byte>& response, int cache_mode,
                                        const std::vector<std::uint32_t>& match) = 0;
    // Makes the waiting command and every later one fail with `Abandoned`.
    virtual void abandon() = 0;
    // Asks the device again whether it speaks VXP 2.0, after an answer that
    // said it does not.
    // Configuration by this host: a feature that wrote settings into the
    // device says so (the first one makes the device ours with a new
    // cookie), one that waits for the next connection says that; the
    // device counts as configured while any feature has written.
    virtual bool configured() = 0;
    virtual bool set_configured(const std::shared_ptr<IFeature>& feature) = 0;
    virtual bool set_pending(const std::shared_ptr<IFeature>& feature) = 0;
    virtual bool has_pending() = 0;
    // Runs the connection check now, as a reconnection would.
    virtual void confirm_configuration() = 0;
    // Hands the device back before exit: clears our cookie when we left
    // settings in it.
    virtual bool shutdown() = 0;
    virtual bool retry_load_feature_root() = 0;
    virtual int hw_value() = 0;
    virtual unsigned rand_range(unsigned low, int high) = 0;
};

// "Report" in the write-report and config-change names is how these events
// have always been logged; log readers search for it.
namespace event_names {
inline constexpr IDevice::Report::Names DeviceReport{"Device::Report::onReport"};
inline constexpr IDevice::WriteReport::Names DeviceWriteReport{"Device::Report::onWriteReport"};
inline constexpr IDevice::Connect::Names DeviceConnect{"Device::Connect::onConnect",
                                                       "Device::Connect::onDisconnect",
                                                       "Device::Connect::onFirmwareChanged"};
inline constexpr IDevice::ConfigChange::Names DeviceConfigChange{"Device::Report::onConfigChange"};
}  // namespace event_names

}  // namespace devio
