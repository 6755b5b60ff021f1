// Battery status: level, next level and status (function 0, and every
// notification), capability (function 1).

#include "Features/Feature1000BatteryUnifiedLeveStatus.h"

#include "Base/ClassLog.h"
#include "Base/Coding.h"
#include "Base/ErrorRecord.h"
#include "Features/FeatureRegistry.h"

namespace devio {

namespace {
constexpr unsigned kGetBatteryLevelStatus = 0;
constexpr unsigned kGetBatteryCapability = 1;
constexpr std::size_t kLevelStatusSize = 3;
constexpr std::size_t kCapabilitySize = 5;

const FeatureRegistrar registrar(Feature1000BatteryUnifiedLeveStatus::kId,
                                 &makeFeature<Feature1000BatteryUnifiedLeveStatus>);
std::atomic<bool> included{false};
}  // namespace

IFeatureForceInclusion1000::IFeatureForceInclusion1000() {
    noteFeatureIncluded(included, "Feature1000BatteryUnifiedLeveStatus",
                        "devio::IFeatureForceInclusion1000::IFeatureForceInclusion1000",
                        "Devio: Feature1000 included");
}

Feature1000BatteryUnifiedLeveStatus::Feature1000BatteryUnifiedLeveStatus(
    Byte featureIndex, const std::shared_ptr<IDevice>& owner)
    : Feature(kId, featureIndex, owner) {}

bool Feature1000BatteryUnifiedLeveStatus::GetBatteryLevelStatus(
    std::uint16_t* BatteryDischargeLevel, std::uint16_t* BatteryDischargeNextLevel,
    std::uint16_t* BatteryStatus) {
    std::vector<Byte> a;
    // The level changes while the device runs: never from the cache.
    if (!sendSynchronousFeatureCommand(kGetBatteryLevelStatus, {}, a, 0)) return false;
    if (a.size() < kLevelStatusSize) {
        set_error(CommandResponseTooShort);
        return false;
    }
    if (BatteryDischargeLevel != nullptr) *BatteryDischargeLevel = a[0];
    if (BatteryDischargeNextLevel != nullptr) *BatteryDischargeNextLevel = a[1];
    if (BatteryStatus != nullptr) *BatteryStatus = a[2];
    DEVIO_LOG("Feature1000BatteryUnifiedLeveStatus", 2, "GetBatteryLevelStatus",
              "Feature1000BatteryUnifiedLeveStatus::GetBatteryLevelStatus(*BatteryDischargeLevel "
              "= %d, *BatteryDischargeNextLevel = %d, *BatteryStatus = %d)",
              a[0], a[1], a[2]);
    return true;
}

bool Feature1000BatteryUnifiedLeveStatus::GetBatteryCapability(
    std::uint16_t* NumberOfLevels, std::uint16_t* Flags, std::uint32_t* NominalBatteryLife,
    std::uint32_t* BatteryCriticalLevel) {
    std::vector<Byte> a;
    if (!sendSynchronousFeatureCommand(kGetBatteryCapability, {}, a, 1)) return false;
    if (a.size() < kCapabilitySize) {
        set_error(CommandResponseTooShort);
        return false;
    }
    const std::uint32_t life = coding::be16(a, 2);
    if (NumberOfLevels != nullptr) *NumberOfLevels = a[0];
    if (Flags != nullptr) *Flags = a[1];
    if (NominalBatteryLife != nullptr) *NominalBatteryLife = life;
    if (BatteryCriticalLevel != nullptr) *BatteryCriticalLevel = a[4];
    DEVIO_LOG("Feature1000BatteryUnifiedLeveStatus", 2, "GetBatteryCapability",
              "Feature1000BatteryUnifiedLeveStatus::GetBatteryCapability(*NumberOfLevels = %d, "
              "*Flags = %d, *NominalBatteryLife = %d, *BatteryCriticalLevel = %d)",
              a[0], a[1], static_cast<int>(life), a[4]);
    return true;
}

// Every notification of this feature is a status report, whatever its
// function number.
void Feature1000BatteryUnifiedLeveStatus::onFeatureReport(int /*function*/,
                                                          const std::vector<Byte>& params) {
    if (params.size() < kLevelStatusSize) {
        set_error(CommandResponseTooShort);
        return;
    }
    const auto level = static_cast<short>(params[0]);
    const auto next = static_cast<short>(params[1]);
    const auto status = static_cast<short>(params[2]);
    Producer<IFeature1000BatteryUnifiedLevelStatus::Report>::produce(
        [level, next, status](IFeature1000BatteryUnifiedLevelStatus::Report* s) {
            s->onBatteryLevelStatus(level, next, status);
        },
        event_names::Feature1000BatteryUnifiedLeveStatusReport.onBatteryLevelStatus);
}

}  // namespace devio
