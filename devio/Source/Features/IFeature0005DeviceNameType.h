#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Base/Byte.h"

namespace devio {

// Feature 0x0005: the device's marketing name and its type. Both are
// constant for a firmware, so every request may be answered from the cache
// of responses. Out-parameters may be null unless said otherwise.
class IFeature0005DeviceNameType {
public:
    virtual ~IFeature0005DeviceNameType() = default;

    // The length of the name in characters.
    virtual bool GetCount(unsigned* count) = 0;
    // The whole name, read chunk by chunk. The first full reading is kept
    // for the life of the object.
    virtual bool GetDeviceName(std::string* name) = 0;
    // The chunk of the name that starts at `charIndex`, as the device sends
    // it: a whole parameter area, padding included.
    virtual bool GetDeviceName(Byte charIndex, std::vector<Byte>* chunk) = 0;
    // The type byte, widened. This form needs its out-parameter; a null one
    // fails with `InternalError` and sends nothing.
    virtual bool GetDeviceType(std::uint32_t* type) = 0;
    virtual bool GetDeviceType(Byte* type) = 0;
};

// Every unit that includes this header holds one of these; its constructor
// lives in the feature's own unit, so the linker cannot leave the feature
// (and its registration) out.
class IFeatureForceInclusion0005 {
public:
    IFeatureForceInclusion0005();
};
[[maybe_unused]] static const IFeatureForceInclusion0005 featureForceInclusion0005;

}  // namespace devio
