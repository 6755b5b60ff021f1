#include "ErrorBytes.h"
#include "Feature.h"

namespace devio_sim {

namespace {
Byte flagsByte(const FeatureEntry& f) {
    return static_cast<Byte>((f.obsolete ? 0x80 : 0) | (f.hidden ? 0x40 : 0) |
                             (f.engineering ? 0x20 : 0));
}
}  // namespace

// The root maps feature ids to indices and tells the protocol version; its
// version request doubles as the ping, whose third byte comes back as sent.
Reply rootFeature(DeviceDescription& device, const Call& call) {
    switch (call.function) {
        case 0: {
            const auto id = static_cast<std::uint16_t>(call.param(0) << 8 | call.param(1));
            const Byte index = id == 0 ? 0 : device.featureIndex(id);
            if (index == 0) return Reply::with({0, 0, 0});
            const FeatureEntry& f = device.features[index - 1];
            return Reply::with({index, flagsByte(f), f.version});
        }
        case 1:
            return Reply::with({device.protocol, device.target_sw, call.param(2)});
        default:
            return Reply::fail(vxp20::kUnknownFunction);
    }
}

Reply featureSet(DeviceDescription& device, const Call& call) {
    switch (call.function) {
        case 0:
            return Reply::with({static_cast<Byte>(device.features.size())});
        case 1: {
            const Byte index = call.param(0);
            if (index == 0) return Reply::with({0, 0, 0, 0});
            if (index > device.features.size()) return Reply::fail(vxp20::kBadArgument);
            const FeatureEntry& f = device.features[index - 1];
            return Reply::with({static_cast<Byte>(f.id >> 8), static_cast<Byte>(f.id & 0xFF),
                                flagsByte(f), f.version});
        }
        default:
            return Reply::fail(vxp20::kUnknownFunction);
    }
}

}  // namespace devio_sim
