#pragma once

namespace devio {

// Feature 0x1D4B: the device tells that its wireless link came back, and
// whether it lost its settings on the way (a reset, or a power switch). It
// has no commands.
class IFeature1D4BWirelessStatus {
public:
    class Report {
    public:
        using Interface = IFeature1D4BWirelessStatus;
        struct Names {
            const char* onWirelessStatusEvent;
        };
        virtual void onWirelessStatusEvent(bool /*reconnect*/, bool /*config_needed*/,
                                           bool /*powerswitch*/) {}

    protected:
        ~Report() = default;
    };

    virtual ~IFeature1D4BWirelessStatus() = default;
};

namespace event_names {
inline constexpr IFeature1D4BWirelessStatus::Report::Names Feature1D4BWirelessStatusReport{
    "Feature1D4BWirelessStatus::Report::onWirelessStatusEvent"};
}  // namespace event_names

class IFeatureForceInclusion1D4B {
public:
    IFeatureForceInclusion1D4B();
};
[[maybe_unused]] static const IFeatureForceInclusion1D4B featureForceInclusion1D4B;

}  // namespace devio
