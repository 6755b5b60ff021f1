#pragma once

#include <memory>
#include <vector>

#include "Byte.h"
#include "ErrorCode.h"

namespace devio {

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
