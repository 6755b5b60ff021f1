#pragma once

namespace devio {

// Feature 0x1D4B: the device tells that its wireless link came back.
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

}  // namespace devio
