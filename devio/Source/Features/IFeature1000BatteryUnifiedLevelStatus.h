#pragma once

#include <cstdint>

namespace devio {

// Feature 0x1000: battery level and charging status, asked for or told by
// the device when they change. The values are the device's own; the library
// does not interpret them. Out-parameters may be null.
class IFeature1000BatteryUnifiedLevelStatus {
public:
    class Report {
    public:
        using Interface = IFeature1000BatteryUnifiedLevelStatus;
        struct Names {
            const char* onBatteryLevelStatus;
        };
        virtual void onBatteryLevelStatus(short /*level*/, short /*nextLevel*/, short /*status*/) {}

    protected:
        ~Report() = default;
    };

    virtual ~IFeature1000BatteryUnifiedLevelStatus() = default;

    // Always asked of the device.
    virtual bool GetBatteryLevelStatus(std::uint16_t* BatteryDischargeLevel,
                                       std::uint16_t* BatteryDischargeNextLevel,
                                       std::uint16_t* BatteryStatus) = 0;
    // Constant for a firmware: may come from the cache of responses.
    virtual bool GetBatteryCapability(std::uint16_t* NumberOfLevels, std::uint16_t* Flags,
                                      std::uint32_t* NominalBatteryLife,
                                      std::uint32_t* BatteryCriticalLevel) = 0;
};

// The producing class is spelled "Leve" and its event name with it; log
// readers search for that spelling.
namespace event_names {
inline constexpr IFeature1000BatteryUnifiedLevelStatus::Report::Names
    Feature1000BatteryUnifiedLeveStatusReport{
        "Feature1000BatteryUnifiedLeveStatus::Report::onBatteryLevelStatus"};
}  // namespace event_names

class IFeatureForceInclusion1000 {
public:
    IFeatureForceInclusion1000();
};
[[maybe_unused]] static const IFeatureForceInclusion1000 featureForceInclusion1000;

}  // namespace devio
