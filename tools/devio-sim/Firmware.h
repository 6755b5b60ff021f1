#pragma once

#include <optional>

#include "Description.h"
#include "Report.h"

namespace devio_sim {

// The firmware of one simulated device: answers the host's reports from the
// device's description, which it owns and changes as the host writes, and
// builds the device's notifications.
//
// Not thread-safe: the machine calls it only on its serving thread.
class Firmware {
public:
    explicit Firmware(DeviceDescription description) : device_(std::move(description)) {}

    // The answer to one report addressed to this device, or nothing for a
    // report that a device does not answer (an error or notification echoed
    // back at it). The answer keeps the request's report id; the node that
    // carries it picks the report that fits.
    std::optional<Report> handle(const Report& request);

    // A notification of the feature `feature_id`, with device index
    // `index`; nothing if the device lacks the feature.
    std::optional<Report> notification(Byte index, std::uint16_t feature_id, Byte function,
                                       const std::vector<Byte>& params) const;

    // What another host's write of the cookie looks like to this one: the
    // answer to its write, under its software id.
    std::optional<Report> cookieWrittenByOtherHost(Byte index, std::uint16_t cookie, Byte swid);

    DeviceDescription& device() { return device_; }
    const DeviceDescription& device() const { return device_; }

private:
    std::optional<Report> handleFeature(const Report& request);

    DeviceDescription device_;
};

}  // namespace devio_sim
