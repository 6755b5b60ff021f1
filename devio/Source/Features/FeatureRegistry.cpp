// The registry of feature classes, and the making of feature objects.

#include "Features/FeatureRegistry.h"

#include <mutex>

#include "Features/Feature.h"
#include "xlog.h"
// Every feature the library has a class for; including their interfaces
// here keeps them linked into any program that makes features, so that
// `createFeature` makes each of them whatever the program itself includes.
#include "Features/IFeature0000Root.h"
#include "Features/IFeature0001FeatureSet.h"
#include "Features/IFeature0003FirmwareInfo.h"
#include "Features/IFeature0005DeviceNameType.h"
#include "Features/IFeature0007DeviceFriendlyName.h"
#include "Features/IFeature0020ConfigChange.h"
#include "Features/IFeature1000BatteryUnifiedLevelStatus.h"
#include "Features/IFeature1D4BWirelessStatus.h"
#include "Features/IFeature1F1FFirmwareProperties.h"

namespace devio {

namespace {
// Registration runs before `main` on one thread; devices make features on
// many. Made on first use, like the map.
std::mutex& registryMutex() {
    static std::mutex mutex;
    return mutex;
}
}  // namespace

std::map<std::int32_t, FeatureFactory>& featureRegistry() {
    static std::map<std::int32_t, FeatureFactory> map;
    return map;
}

FeatureRegistrar::FeatureRegistrar(std::uint32_t id, FeatureFactory factory) {
    std::lock_guard<std::mutex> lock(registryMutex());
    featureRegistry()[static_cast<std::int32_t>(id)] = factory;
}

std::shared_ptr<IFeature> createFeature(std::uint32_t id, std::uint32_t index,
                                        const std::shared_ptr<IDevice>& device) {
    FeatureFactory factory = nullptr;
    {
        std::lock_guard<std::mutex> lock(registryMutex());
        factory = featureRegistry()[static_cast<std::int32_t>(id)];
    }
    const auto byteIndex = static_cast<Byte>(index);
    std::shared_ptr<IFeature> made;
    if (factory != nullptr) made = factory(byteIndex, device);
    if (!made) made = std::make_shared<Feature>(id, byteIndex, device);
    return made;
}

void noteFeatureIncluded(std::atomic<bool>& logged, const char* className, const char* function,
                         const char* text) {
    if (logged.exchange(true)) return;
    xLog(className, 3, function, "%s", text);
}

}  // namespace devio
