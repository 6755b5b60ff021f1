#pragma once

#include <vector>

#include "Byte.h"

namespace devio {

// One VXP 2.0 feature of a device.
class IFeature {
public:
    // Traffic of this feature that no command of ours waited for: a
    // notification (`onFeatureReport`) or an answer to another software id.
    class FeatureReport {
    public:
        using Interface = IFeature;
        struct Names {
            const char* onFeatureReport;
            const char* onUnexpectedResponse;
        };
        virtual void onFeatureReport(int /*function*/, const std::vector<Byte>& /*params*/) {}
        virtual void onUnexpectedResponse(unsigned /*function*/, unsigned /*swid*/,
                                          const std::vector<Byte>& /*params*/) {}

    protected:
        ~FeatureReport() = default;
    };

    virtual ~IFeature() = default;
};

namespace event_names {
inline constexpr IFeature::FeatureReport::Names FeatureFeatureReport{
    "Feature::FeatureReport::onFeatureReport", "Feature::FeatureReport::onUnexpectedResponse"};
}  // namespace event_names

}  // namespace devio
