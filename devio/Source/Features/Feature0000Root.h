#pragma once

#include "Features/Feature.h"
#include "Features/IFeature0000Root.h"

namespace devio {

// The root feature. Remembers the protocol version after its first
// successful reading, for the life of the object.
class Feature0000Root : public Feature, public IFeature0000Root {
public:
    static constexpr std::uint32_t kId = 0x0000;

    Feature0000Root(Byte index, const std::shared_ptr<IDevice>& device);

    bool GetFeature(unsigned featureId, unsigned* featureIndex, bool* obsolete, bool* hidden,
                    bool* engineering, unsigned* version, bool cached) override;
    bool GetProtocolVersion(Byte pingSent, unsigned* protocol, unsigned* targetsw,
                            unsigned* pingReceived) override;
    bool TargetSw(unsigned* protocol, unsigned* targetsw) override;
    bool Ping(Byte data) override;

private:
    bool targetSwRead = false;
    Byte protocol = 0;
    Byte targetSw = 0;
};

}  // namespace devio
