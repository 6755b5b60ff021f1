#include "ErrorBytes.h"
#include "Feature.h"

namespace devio_sim {

// The cookie belongs to whoever configured the device last; the answer to a
// write carries the new value, which is how other hosts come to see it.
Reply configChange(DeviceDescription& device, const Call& call) {
    switch (call.function) {
        case 0: {
            std::vector<Byte> p;
            putBe16(p, device.cookie);
            return Reply::with(std::move(p));
        }
        case 1:
            device.cookie = static_cast<std::uint16_t>(call.param(0) << 8 | call.param(1));
            return Reply::with({call.param(0), call.param(1)});
        default:
            return Reply::fail(vxp20::kUnknownFunction);
    }
}

Reply batteryStatus(DeviceDescription& device, const Call& call) {
    const Battery& b = device.battery;
    switch (call.function) {
        case 0:
            return Reply::with({b.level, b.next_level, b.status});
        case 1: {
            std::vector<Byte> p{b.number_of_levels, b.flags};
            putBe16(p, b.nominal_life);
            p.push_back(b.critical_level);
            return Reply::with(std::move(p));
        }
        default:
            return Reply::fail(vxp20::kUnknownFunction);
    }
}

}  // namespace devio_sim
