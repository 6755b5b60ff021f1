#pragma once

#include <cstdint>

#include "Base/Byte.h"

namespace devio {

// Feature 0x0000, always at index 0: maps feature ids to this device's
// indices, tells the protocol version and echoes pings.
class IFeature0000Root {
public:
    virtual ~IFeature0000Root() = default;

    // Index 0 in `*featureIndex` means that the device lacks the feature.
    virtual bool GetFeature(unsigned featureId, unsigned* featureIndex, bool* obsolete,
                            bool* hidden, bool* engineering, unsigned* version, bool cached) = 0;
    // A version request without ping data may be answered from the cache.
    virtual bool GetProtocolVersion(Byte pingSent, unsigned* protocol, unsigned* targetsw,
                                    unsigned* pingReceived) = 0;
    // The protocol version, asked of the device once per object.
    virtual bool TargetSw(unsigned* protocol, unsigned* targetsw) = 0;
    // Succeeds only if the device echoes `data`.
    virtual bool Ping(Byte data) = 0;
};

// Every unit that includes this header holds one of these; its constructor
// lives in the feature's own unit, so the linker cannot leave the feature
// (and its registration) out.
class IFeatureForceInclusion0000 {
public:
    IFeatureForceInclusion0000();
};
[[maybe_unused]] static const IFeatureForceInclusion0000 featureForceInclusion0000;

}  // namespace devio
