// Wireless status: one notification of three flag bytes (reconnect,
// configuration needed, power switch), each true only as 1.

#include "Features/Feature1D4BWirelessStatus.h"

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Features/FeatureRegistry.h"

namespace devio {

namespace {
constexpr std::size_t kStatusSize = 3;

const FeatureRegistrar registrar(Feature1D4BWirelessStatus::kId,
                                 &makeFeature<Feature1D4BWirelessStatus>);
std::atomic<bool> included{false};
}  // namespace

IFeatureForceInclusion1D4B::IFeatureForceInclusion1D4B() {
    noteFeatureIncluded(included, "Feature1D4BWirelessStatus",
                        "devio::IFeatureForceInclusion1D4B::IFeatureForceInclusion1D4B",
                        "Devio: Feature1D4B included");
}

Feature1D4BWirelessStatus::Feature1D4BWirelessStatus(Byte featureIndex,
                                                     const std::shared_ptr<IDevice>& owner)
    : Feature(kId, featureIndex, owner) {
    DEVIO_LOG("Feature1D4BWirelessStatus", 2, "Feature1D4BWirelessStatus", "ctor");
}

Feature1D4BWirelessStatus::~Feature1D4BWirelessStatus() {
    DEVIO_LOG("Feature1D4BWirelessStatus", 2, "~Feature1D4BWirelessStatus", "dtor");
}

// Whatever its function number, a notification of this feature is the
// status.
void Feature1D4BWirelessStatus::onFeatureReport(int /*function*/, const std::vector<Byte>& params) {
    DEVIO_LOG("Feature1D4BWirelessStatus", 2, "onFeatureReport",
              "Feature1D4BWirelessStatus::onFeatureReport");
    if (params.size() < kStatusSize) {
        set_error(CommandResponseTooShort);
        return;
    }
    const bool reconnect = params[0] == 1;
    const bool configNeeded = params[1] == 1;
    const bool powerSwitch = params[2] == 1;
    Producer<IFeature1D4BWirelessStatus::Report>::produce(
        [reconnect, configNeeded, powerSwitch](IFeature1D4BWirelessStatus::Report* s) {
            s->onWirelessStatusEvent(reconnect, configNeeded, powerSwitch);
        },
        event_names::Feature1D4BWirelessStatusReport.onWirelessStatusEvent);
}

}  // namespace devio
