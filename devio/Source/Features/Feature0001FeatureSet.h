#pragma once

#include "Features/Feature.h"
#include "Features/IFeature0001FeatureSet.h"

namespace devio {

// The feature table of a device. Its answers are constant for one firmware,
// so every query may come from the cache of responses.
class Feature0001FeatureSet : public Feature, public IFeature0001FeatureSet {
public:
    static constexpr std::uint32_t kId = 0x0001;

    Feature0001FeatureSet(Byte index, const std::shared_ptr<IDevice>& device);

    bool GetCount(unsigned* count) override;
    bool GetFeatureID(unsigned featureIndex, unsigned* featureID, bool* engineeringHidden,
                      bool* swHidden, bool* obsolete, unsigned* version) override;
};

}  // namespace devio
