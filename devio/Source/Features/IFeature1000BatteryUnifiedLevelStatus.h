#pragma once

namespace devio {

// Feature 0x1000: battery level and charging status.
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
};

// The producing class is spelled "Leve" and its event name with it; log
// readers search for that spelling.
namespace event_names {
inline constexpr IFeature1000BatteryUnifiedLevelStatus::Report::Names
    Feature1000BatteryUnifiedLeveStatusReport{
        "Feature1000BatteryUnifiedLeveStatus::Report::onBatteryLevelStatus"};
}  // namespace event_names

}  // namespace devio
