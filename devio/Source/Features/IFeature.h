#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Base/Byte.h"

namespace devio {

class IDevice;
class Feature;

// One VXP 2.0 feature of a device: a fixed feature id, and an index that
// this device gave it. Objects are made only by `createFeature` and always
// owned by `shared_ptr`; they hold their device weakly.
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

    virtual std::uint32_t featureId() = 0;
    // Writes one command of this feature and does not wait for an answer.
    virtual bool sendFeatureCommand(unsigned function, const std::vector<Byte>& params) = 0;
    // One command and its answer; `response` receives the answer's parameter
    // bytes (3 from a short report, 16 from a long one). `cached` 1 lets the
    // device answer from its cache of responses.
    virtual bool sendSynchronousFeatureCommand(unsigned function, const std::vector<Byte>& params,
                                               std::vector<Byte>& response, int cached) = 0;
    // As above; an answer counts only if it echoes the command's parameter
    // bytes at each of `matchPositions`.
    virtual bool sendSynchronousFeatureCommandMatching(
        unsigned function, const std::vector<Byte>& params, std::vector<Byte>& response, int cached,
        const std::vector<std::uint32_t>& matchPositions) = 0;
    virtual bool hasPendingChanges() = 0;
    virtual bool isWritingPendingChanges() = 0;
    // Empty once the device is gone.
    virtual std::shared_ptr<IDevice> device() = 0;
    virtual bool isObsolete() = 0;
    virtual bool isHidden() = 0;
    virtual bool isEngineeringHidden() = 0;
    virtual std::uint32_t featureIndex() = 0;
    virtual std::uint32_t featureVersion() = 0;
    virtual std::shared_ptr<Feature> sharedFeature() = 0;
};

namespace event_names {
inline constexpr IFeature::FeatureReport::Names FeatureFeatureReport{
    "Feature::FeatureReport::onFeatureReport", "Feature::FeatureReport::onUnexpectedResponse"};
}  // namespace event_names

}  // namespace devio
