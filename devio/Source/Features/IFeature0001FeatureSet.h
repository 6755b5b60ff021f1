#pragma once

#include <cstdint>

namespace devio {

// Feature 0x0001: the device's feature table, by index.
class IFeature0001FeatureSet {
public:
    virtual ~IFeature0001FeatureSet() = default;

    // The number of features, not counting the root at index 0.
    virtual bool GetCount(unsigned* count) = 0;
    // The record of the feature at `featureIndex`. Mind the order of the
    // flags: engineering first, obsolete last.
    virtual bool GetFeatureID(unsigned featureIndex, unsigned* featureID, bool* engineeringHidden,
                              bool* swHidden, bool* obsolete, unsigned* version) = 0;
};

class IFeatureForceInclusion0001 {
public:
    IFeatureForceInclusion0001();
};
[[maybe_unused]] static const IFeatureForceInclusion0001 featureForceInclusion0001;

}  // namespace devio
