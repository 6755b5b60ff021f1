#include "FeatureBench.h"

#include <gtest/gtest.h>

namespace devtest {

std::string deviceMachine(const std::string& firmwareMembers) {
    std::string text = R"({"devices": [{"id": "mouse", "name": "Test Mouse", "pid": "0xC08B")";
    if (!firmwareMembers.empty()) text += ", " + firmwareMembers;
    return text + "}]}";
}

FeatureBench::FeatureBench(const std::string& machine)
    : description(machine), rig(false, false, description.c_str()) {
    rootFeature = devio::createFeature(0x0000, 0, rig.dev);
    root = std::dynamic_pointer_cast<devio::IFeature0000Root>(rootFeature);
    rig.dev->store_feature(0, rootFeature);
}

std::shared_ptr<devio::IFeature> FeatureBench::loadFeature(unsigned id) {
    unsigned index = 0;
    if (!root || !root->GetFeature(id, &index, nullptr, nullptr, nullptr, nullptr, true) ||
        index == 0) {
        ADD_FAILURE() << "no feature " << id;
        return nullptr;
    }
    auto feature = devio::createFeature(id, index, rig.dev);
    rig.dev->store_feature(index, feature);
    return feature;
}

std::size_t FeatureBench::sentSinceLastLook() {
    const std::size_t now = rig.rec.sent().size();
    const std::size_t delta = now - seen_;
    seen_ = now;
    return delta;
}

}  // namespace devtest
