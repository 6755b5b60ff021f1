#include "ErrorBytes.h"
#include "Feature.h"

namespace devio_sim {

FeatureHandler featureHandler(std::uint16_t feature_id) {
    switch (feature_id) {
        case 0x0000:
            return rootFeature;
        case 0x0001:
            return featureSet;
        case 0x0003:
            return firmwareInfo;
        case 0x0005:
            return deviceNameType;
        case 0x0007:
            return friendlyName;
        case 0x0020:
            return configChange;
        case 0x1000:
            return batteryStatus;
        case 0x1D4B:
            return wirelessStatus;
        case 0x1F1F:
            return firmwareProperties;
        default:
            return nullptr;
    }
}

// The wireless status feature only notifies; it has no function to call.
Reply wirelessStatus(DeviceDescription&, const Call&) {
    return Reply::fail(vxp20::kUnknownFunction);
}

}  // namespace devio_sim
