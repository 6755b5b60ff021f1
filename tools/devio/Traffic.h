#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

#include "Base/Subscriber.h"
#include "Device/IDevice.h"

namespace devio_tool {

// Counts the reports that the library writes to the devices it follows, as
// the devices tell them (a failed exchange comes as an empty report and is
// not counted). Handlers run on the devices' threads.
class Traffic : public devio::Subscriber<devio::IDevice::WriteReport> {
public:
    void follow(const std::shared_ptr<devio::IDevice>& device) {
        subscribe(device, devio::DeliveryDirect);
    }
    void onWriteReport(const std::vector<devio::Byte>& report, devio::ErrorCode err,
                       unsigned /*value*/) override {
        if (!report.empty() && err == devio::Success) reports_.fetch_add(1);
    }
    std::size_t reports() const { return reports_.load(); }

private:
    std::atomic<std::size_t> reports_{0};
};

}  // namespace devio_tool
