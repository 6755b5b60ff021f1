#include "ErrorBytes.h"
#include "Feature.h"

namespace devio_sim {

Reply firmwareInfo(DeviceDescription& device, const Call& call) {
    switch (call.function) {
        case 0: {
            const EntityInfo& e = device.entity_info;
            std::vector<Byte> p{static_cast<Byte>(device.entities.size())};
            putBe32(p, e.unit_id);
            putBe16(p, e.transport);
            for (std::uint16_t pid : e.pids) putBe16(p, pid);
            p.push_back(e.extended_model_id);
            return Reply::with(std::move(p));
        }
        case 1: {
            const Byte entity = call.param(0);
            if (entity >= device.entities.size()) return Reply::fail(vxp20::kBadArgument);
            const FirmwareEntity& fw = device.entities[entity];
            std::vector<Byte> p{fw.type};
            for (std::size_t i = 0; i < 3; ++i) {
                p.push_back(i < fw.prefix.size() ? static_cast<Byte>(fw.prefix[i]) : Byte{0});
            }
            putBe16(p, fw.version);
            putBe16(p, fw.build);
            p.push_back(fw.rdnf);
            for (std::size_t i = 0; i < 7; ++i)
                p.push_back(i < fw.extra.size() ? fw.extra[i] : Byte{0});
            return Reply::with(std::move(p));
        }
        default:
            return Reply::fail(vxp20::kUnknownFunction);
    }
}

}  // namespace devio_sim
