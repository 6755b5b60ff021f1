#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace devio_sim {

using Byte = std::uint8_t;
// A report whole, starting with its report id, as it travels on a node.
using Report = std::vector<Byte>;

// Report ids and header bytes of the wire protocol.
inline constexpr Byte kShortReportId = 0x10;
inline constexpr Byte kLongReportId = 0x11;
inline constexpr Byte kShortReportSize = 7;
inline constexpr Byte kLongReportSize = 20;
inline constexpr Byte kReceiverIndex = 0xFF;
inline constexpr Byte kVxp10ErrorSubId = 0x8F;
inline constexpr Byte kVxp20ErrorIndex = 0xFF;
inline constexpr std::size_t kHeaderSize = 4;

// Byte `i` of a report, 0 beyond its end: a short report that a host padded
// or did not pad reads the same.
inline Byte byteAt(const Report& r, std::size_t i) {
    return i < r.size() ? r[i] : Byte{0};
}

// A report made of its four header bytes and its parameters.
inline Report makeReport(Byte id, Byte index, Byte sub_id, Byte fourth,
                         const std::vector<Byte>& params) {
    Report r;
    r.reserve(kHeaderSize + params.size());
    for (Byte b : {id, index, sub_id, fourth}) r.push_back(b);
    for (Byte b : params) r.push_back(b);
    return r;
}

inline void putBe16(std::vector<Byte>& out, std::uint16_t v) {
    out.push_back(static_cast<Byte>(v >> 8));
    out.push_back(static_cast<Byte>(v & 0xFF));
}

inline void putBe32(std::vector<Byte>& out, std::uint32_t v) {
    putBe16(out, static_cast<std::uint16_t>(v >> 16));
    putBe16(out, static_cast<std::uint16_t>(v & 0xFFFF));
}

}  // namespace devio_sim
