#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>

#include "Base/Byte.h"
#include "Features/IFeature.h"

namespace devio {

class IDevice;

// Makes the object of one feature class for a device.
using FeatureFactory = std::shared_ptr<IFeature> (*)(Byte index,
                                                     const std::shared_ptr<IDevice>& device);

// The process-wide map from feature id to factory. Made on first use, so it
// exists whichever unit registers first; registration runs before `main`.
std::map<std::int32_t, FeatureFactory>& featureRegistry();

// The factory of a feature class `T` constructed from (index, device).
template <class T>
std::shared_ptr<IFeature> makeFeature(Byte index, const std::shared_ptr<IDevice>& device) {
    return std::make_shared<T>(index, device);
}

// A static object of this class in a feature's unit registers the feature.
class FeatureRegistrar {
public:
    FeatureRegistrar(std::uint32_t id, FeatureFactory factory);
};

// The one way feature objects are made. An id without a class of its own
// gets a plain `Feature`, which leaves an empty entry in the map behind.
// Any thread may call.
std::shared_ptr<IFeature> createFeature(std::uint32_t id, std::uint32_t index,
                                        const std::shared_ptr<IDevice>& device);

// Logs, once per process and feature, that a unit including the feature's
// interface linked the feature in.
void noteFeatureIncluded(std::atomic<bool>& logged, const char* className, const char* function,
                         const char* text);

}  // namespace devio
