#include "ErrorBytes.h"
#include "Feature.h"

namespace devio_sim {

namespace {
// A long report carries 16 parameter bytes; that is the chunk of the name.
constexpr std::size_t kNameChunk = 16;
// The friendly name travels in chunks of 15 behind the chunk's index byte.
constexpr std::size_t kFriendlyChunk = 15;

std::vector<Byte> slice(const std::string& text, std::size_t from, std::size_t count) {
    std::vector<Byte> out(count, 0);
    for (std::size_t i = 0; i < count && from + i < text.size(); ++i) {
        out[i] = static_cast<Byte>(text[from + i]);
    }
    return out;
}

Reply friendlyChunk(const std::string& text, Byte max_len, Byte index) {
    if (index >= max_len) return Reply::fail(vxp20::kBadArgument);
    std::vector<Byte> p{index};
    const std::vector<Byte> chunk = slice(text, index, kFriendlyChunk);
    p.insert(p.end(), chunk.begin(), chunk.end());
    return Reply::with(std::move(p));
}
}  // namespace

Reply deviceNameType(DeviceDescription& device, const Call& call) {
    const std::string& name = device.marketing_name;
    switch (call.function) {
        case 0:
            return Reply::with({static_cast<Byte>(std::min<std::size_t>(name.size(), 0xFF))});
        case 1:
            if (call.param(0) >= name.size()) return Reply::fail(vxp20::kBadArgument);
            return Reply::with(slice(name, call.param(0), kNameChunk));
        case 2:
            return Reply::with({device.device_type});
        default:
            return Reply::fail(vxp20::kUnknownFunction);
    }
}

// Writing a chunk makes the name end where the written text ends: the device
// keeps what lies before the chunk and drops what followed it.
Reply friendlyName(DeviceDescription& device, const Call& call) {
    FriendlyName& f = device.friendly;
    const Byte index = call.param(0);
    switch (call.function) {
        case 0:
            return Reply::with({static_cast<Byte>(f.name.size()), f.max_len,
                                static_cast<Byte>(f.default_name.size())});
        case 1:
            return friendlyChunk(f.name, f.max_len, index);
        case 2:
            return friendlyChunk(f.default_name, f.max_len, index);
        case 3: {
            if (index >= f.max_len || index > f.name.size())
                return Reply::fail(vxp20::kBadArgument);
            std::string text = f.name.substr(0, index);
            for (std::size_t i = 0; i < kFriendlyChunk && call.param(1 + i) != 0; ++i) {
                text.push_back(static_cast<char>(call.param(1 + i)));
            }
            if (text.size() > f.max_len) text.resize(f.max_len);
            f.name = text;
            return Reply::with({index});
        }
        case 4:
            f.name = f.default_name;
            return Reply::with({});
        default:
            return Reply::fail(vxp20::kUnknownFunction);
    }
}

}  // namespace devio_sim
