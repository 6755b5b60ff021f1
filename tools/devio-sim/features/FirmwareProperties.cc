#include <algorithm>
#include <cstring>

#include "ErrorBytes.h"
#include "Feature.h"

namespace devio_sim {

namespace {
constexpr Byte kValueSize = 4;
constexpr std::size_t kMaxName = 15;

void putLe32(std::vector<Byte>& out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<Byte>(v >> (8 * i)));
}

std::uint32_t bitsOf(std::int32_t v) {
    return static_cast<std::uint32_t>(v);
}
std::uint32_t bitsOf(float v) {
    std::uint32_t u = 0;
    std::memcpy(&u, &v, sizeof u);
    return u;
}

std::uint32_t le32(const Call& call, std::size_t at) {
    std::uint32_t v = 0;
    for (std::size_t i = 0; i < 4; ++i)
        v |= static_cast<std::uint32_t>(call.param(at + i)) << (8 * i);
    return v;
}

// Bit 7 of the type byte is flag B, bits 4 to 6 the type (0 integer,
// 1 float), bits 0 to 3 the value's size.
Byte typeByte(const Property& p) {
    return static_cast<Byte>((p.flag_b ? 0x80 : 0) | (p.is_float ? 0x10 : 0) | kValueSize);
}

std::vector<Byte> info(const Property& p, Byte id) {
    std::vector<Byte> out{id, typeByte(p),
                          static_cast<Byte>((p.flag_a ? 0x02 : 0) | (p.has_range ? 0x01 : 0))};
    const std::vector<Byte> value = propertyValueBytes(p);
    out.insert(out.end(), value.begin(), value.end());
    if (p.has_range) {
        putLe32(out, p.is_float ? bitsOf(p.fmin) : bitsOf(p.imin));
        putLe32(out, p.is_float ? bitsOf(p.fmax) : bitsOf(p.imax));
    }
    return out;
}

std::vector<Byte> name(const Property& p, Byte id) {
    std::vector<Byte> out{id};
    for (std::size_t i = 0; i < p.name.size() && i < kMaxName; ++i)
        out.push_back(static_cast<Byte>(p.name[i]));
    return out;
}

std::vector<Byte> valueAnswer(const Property& p, Byte id) {
    std::vector<Byte> out{id, kValueSize};
    const std::vector<Byte> value = propertyValueBytes(p);
    out.insert(out.end(), value.begin(), value.end());
    return out;
}
}  // namespace

std::vector<Byte> propertyValueBytes(const Property& p) {
    std::vector<Byte> out;
    putLe32(out, p.is_float ? bitsOf(p.fvalue) : bitsOf(p.ivalue));
    return out;
}

bool setPropertyValue(Property& p, std::uint32_t raw) {
    if (!p.writable) return false;
    if (p.is_float) {
        float f = 0;
        std::memcpy(&f, &raw, sizeof f);
        p.fvalue = p.has_range ? std::clamp(f, p.fmin, p.fmax) : f;
    } else {
        const auto i = static_cast<std::int32_t>(raw);
        p.ivalue = p.has_range ? std::clamp(i, p.imin, p.imax) : i;
    }
    return true;
}

// Every function but the count names a property by its id in parameter 0 and
// echoes it first in the answer.
Reply firmwareProperties(DeviceDescription& device, const Call& call) {
    if (call.function == 0) return Reply::with({static_cast<Byte>(device.properties.size())});
    if (call.function > 6) return Reply::fail(vxp20::kUnknownFunction);
    const Byte id = call.param(0);
    if (id >= device.properties.size()) return Reply::fail(vxp20::kBadArgument);
    Property& p = device.properties[id];
    switch (call.function) {
        case 1:
            return Reply::with(info(p, id));
        case 2:
            return Reply::with(name(p, id));
        case 3:
            return Reply::with(valueAnswer(p, id));
        case 4:
            if (!setPropertyValue(p, le32(call, 2))) return Reply::fail(vxp20::kNotAllowed);
            return Reply::with(valueAnswer(p, id));
        case 5:
            return Reply::with({id});
        default:
            p.ivalue = p.idefault;
            p.fvalue = p.fdefault;
            return Reply::with({id});
    }
}

}  // namespace devio_sim
