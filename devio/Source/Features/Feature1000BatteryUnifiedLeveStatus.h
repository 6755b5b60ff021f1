#pragma once

#include "Base/Producer.h"
#include "Features/Feature.h"
#include "Features/IFeature1000BatteryUnifiedLevelStatus.h"

namespace devio {

// Battery level and capability; the device's status notification becomes
// `onBatteryLevelStatus`. (The class name's spelling is the one that hosts
// and logs know.)
//
// Threads: commands on the caller's thread; `onFeatureReport` on the
// device's read thread. No state of its own beyond the producer, whose
// mutex is held while subscribers are called.
class Feature1000BatteryUnifiedLeveStatus
    : public Feature,
      public IFeature1000BatteryUnifiedLevelStatus,
      public Producer<IFeature1000BatteryUnifiedLevelStatus::Report> {
public:
    static constexpr std::uint32_t kId = 0x1000;

    Feature1000BatteryUnifiedLeveStatus(Byte index, const std::shared_ptr<IDevice>& device);

    bool GetBatteryLevelStatus(std::uint16_t* BatteryDischargeLevel,
                               std::uint16_t* BatteryDischargeNextLevel,
                               std::uint16_t* BatteryStatus) override;
    bool GetBatteryCapability(std::uint16_t* NumberOfLevels, std::uint16_t* Flags,
                              std::uint32_t* NominalBatteryLife,
                              std::uint32_t* BatteryCriticalLevel) override;

protected:
    void onFeatureReport(int function, const std::vector<Byte>& params) override;
};

}  // namespace devio
