#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Base/Byte.h"
#include "Base/Producer.h"
#include "Features/IFeature.h"

namespace devio {

class IDevice;

// What every feature class shares: the feature record that the device's
// feature table gave it, the building of a command into a report, the
// checks on its answer, and the hand-over of unsolicited traffic.
//
// A feature for which the library has no class of its own is a plain
// `Feature`: it carries its id, index, flags and version, and can be cached.
//
// Threads: commands run on the caller's thread and block inside the device,
// which serialises them. `deliverFeatureReport` and
// `deliverUnexpectedResponse` run on the device's read thread; the hooks
// they call must not send a synchronous command of the same device. The
// flags are written only by the device's connection handling.
class Feature : public IFeature,
                public Producer<IFeature::FeatureReport>,
                public std::enable_shared_from_this<Feature> {
public:
    Feature(std::uint32_t id, Byte index, const std::shared_ptr<IDevice>& device);
    ~Feature() override;

    // IFeature
    std::uint32_t featureId() override { return id; }
    bool sendFeatureCommand(unsigned function, const std::vector<Byte>& params) override;
    bool sendSynchronousFeatureCommand(unsigned function, const std::vector<Byte>& params,
                                       std::vector<Byte>& response, int cached) override;
    bool sendSynchronousFeatureCommandMatching(
        unsigned function, const std::vector<Byte>& params, std::vector<Byte>& response, int cached,
        const std::vector<std::uint32_t>& matchPositions) override;
    bool hasPendingChanges() override { return pendingChanges; }
    bool isWritingPendingChanges() override { return writingPendingChanges; }
    std::shared_ptr<IDevice> device() override { return weakDevice.lock(); }
    bool isObsolete() override { return obsolete; }
    bool isHidden() override { return hidden; }
    bool isEngineeringHidden() override { return engineering; }
    std::uint32_t featureIndex() override { return index; }
    std::uint32_t featureVersion() override { return version; }
    std::shared_ptr<Feature> sharedFeature() override { return weak_from_this().lock(); }

    // The device's entries for unsolicited traffic. Subscribers to
    // `FeatureReport` see each report before the feature's own hook does.
    // A notification: `params` are the report's bytes from offset 4 on.
    void deliverFeatureReport(int function, const std::vector<Byte>& params);
    // An answer carrying another program's software id.
    void deliverUnexpectedResponse(unsigned function, unsigned swid,
                                   const std::vector<Byte>& params);

    // Lets the feature write configuration that it holds back. On failure
    // pendingChanges stays set, so the next connection tries again.
    bool applyPendingChanges();

    // The feature record, as the device's feature table lists it; the
    // loader fills in the four protocol fields after construction.
    bool obsolete = false;
    bool hidden = false;
    bool engineering = false;
    std::uint32_t version = 0;
    const std::uint32_t id;
    const Byte index;
    const std::weak_ptr<IDevice> weakDevice;
    // Configuration not yet written to the device, and the moment of its
    // writing; see `applyPendingChanges`.
    bool pendingChanges = false;
    bool writingPendingChanges = false;
    // Kept for the layout of the record; nothing reads it.
    bool reservedFlag = false;

protected:
    // Builds the report of one command: short unless the parameters do not
    // fit. Padding to the report length is the hardware layer's business.
    // Sets DeviceRemoved and returns false when the device is gone.
    bool buildCommand(unsigned function, const std::vector<Byte>& params,
                      std::shared_ptr<IDevice>& dev, std::vector<Byte>& report);

    // Hooks for concrete features.
    virtual bool writePendingChanges() { return true; }
    virtual void onFeatureReport(int /*function*/, const std::vector<Byte>& /*params*/) {}
    virtual void onUnexpectedResponse(unsigned /*function*/, unsigned /*swid*/,
                                      const std::vector<Byte>& /*params*/) {}
};

}  // namespace devio
