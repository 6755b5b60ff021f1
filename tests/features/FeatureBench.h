#pragma once

// Test support: a simulated device whose root feature is in place, as
// feature loading leaves it, and feature objects made through the registry
// at the indices that the root reports.

#include <memory>
#include <string>

#include "Base/ErrorRecord.h"
#include "DeviceRig.h"
#include "Features/FeatureRegistry.h"
#include "Features/IFeature0000Root.h"

namespace devtest {

class FeatureBench {
public:
    explicit FeatureBench(const std::string& machine);

    // The feature `id` as its interface `I`; null (with a test failure) if
    // the device lacks it or the object is not of that interface.
    template <class I>
    std::shared_ptr<I> load(unsigned id) {
        auto feature = loadFeature(id);
        auto typed = std::dynamic_pointer_cast<I>(feature);
        EXPECT_TRUE(typed) << "feature " << id;
        return typed;
    }
    std::shared_ptr<devio::IFeature> loadFeature(unsigned id);

    // Reports that reached the hardware since the last call.
    std::size_t sentSinceLastLook();

    std::string description;
    DeviceRig rig;
    std::shared_ptr<devio::IFeature> rootFeature;
    std::shared_ptr<devio::IFeature0000Root> root;

private:
    std::size_t seen_ = 0;
};

// One corded device in the simulator's description language, with the
// firmware fields given as JSON members (without braces).
std::string deviceMachine(const std::string& firmwareMembers);

}  // namespace devtest
