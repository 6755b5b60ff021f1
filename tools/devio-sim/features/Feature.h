#pragma once

#include <cstdint>
#include <vector>

#include "Description.h"
#include "Report.h"

namespace devio_sim {

// One feature request as the firmware sees it. Parameters beyond the end of
// the report read as 0, as they would from a padded report.
struct Call {
    Byte function;
    const Report& request;
    Byte param(std::size_t i) const { return byteAt(request, kHeaderSize + i); }
};

// The answer of a feature function: parameter bytes, or an error byte.
struct Reply {
    bool ok = true;
    Byte error = 0;
    std::vector<Byte> params;

    static Reply fail(Byte e) { return Reply{false, e, {}}; }
    static Reply with(std::vector<Byte> p) { return Reply{true, 0, std::move(p)}; }
};

// A feature's functions act on the device's own description, which holds
// its state. Called only on the thread that serves the device.
using FeatureHandler = Reply (*)(DeviceDescription& device, const Call& call);

// The implementation of a feature id; nullptr for ids the firmware lists
// but does not implement (their every function is unknown).
FeatureHandler featureHandler(std::uint16_t feature_id);

Reply rootFeature(DeviceDescription& device, const Call& call);
Reply featureSet(DeviceDescription& device, const Call& call);
Reply firmwareInfo(DeviceDescription& device, const Call& call);
Reply deviceNameType(DeviceDescription& device, const Call& call);
Reply friendlyName(DeviceDescription& device, const Call& call);
Reply configChange(DeviceDescription& device, const Call& call);
Reply batteryStatus(DeviceDescription& device, const Call& call);
Reply wirelessStatus(DeviceDescription& device, const Call& call);
Reply firmwareProperties(DeviceDescription& device, const Call& call);

}  // namespace devio_sim

namespace devio_sim {

// A property value as the wire carries it: 4 bytes, little-endian, unlike
// every other multi-byte field.
std::vector<Byte> propertyValueBytes(const Property& p);
// Stores a value in the property's own type, clamped into its range; returns
// false if the property cannot take it (read-only).
bool setPropertyValue(Property& p, std::uint32_t raw);

}  // namespace devio_sim
