#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Base/Byte.h"

namespace devio {

// The header bytes of the report protocol, both versions: report id, device
// index, feature index (or sub id), then function in the high nibble and
// software id in the low one.
namespace vxp {
inline constexpr Byte kShortReportId = 0x10;
inline constexpr std::size_t kShortReportSize = 7;
inline constexpr Byte kOwnIndex = 0xFF;
inline constexpr Byte kVxp10ErrorSubId = 0x8F;
inline constexpr Byte kVxp20ErrorIndex = 0xFF;
// The first feature index (or sub id) that a command never uses: error
// reports and the receiver's registers live above it.
inline constexpr Byte kFirstUncachedIndex = 0x80;

// Byte `i` of a report, 0 beyond its end: padding is not the sender's
// business, so a short report reads as if padded.
inline Byte byte_at(const std::vector<Byte>& r, std::size_t i) {
    return i < r.size() ? r[i] : Byte{0};
}

inline unsigned function_of(Byte b) {
    return b >> 4;
}
inline unsigned swid_of(Byte b) {
    return b & 0x0Fu;
}
inline Byte with_swid(Byte b, unsigned swid) {
    return static_cast<Byte>((b & 0xF0u) | (swid & 0x0Fu));
}

// The sub ids of VXP 1.0 notifications that the receiver deals with.
inline bool is_vxp10_notification(Byte sub_id) {
    return sub_id == 0x40 || sub_id == 0x41 || sub_id == 0x49 || sub_id == 0x4B;
}

// Device index, feature index and function/software id agree. An empty
// report never matches: there is nothing to answer.
bool header_matches(const std::vector<Byte>& report, const std::vector<Byte>& command);
// Every listed parameter position holds the same byte in both.
bool payload_matches(const std::vector<Byte>& report, const std::vector<Byte>& command,
                     const std::vector<std::uint32_t>& match);
// An error report, of either version, that answers `command`.
bool is_error_response(const std::vector<Byte>& report, const std::vector<Byte>& command);

// The form in which a command or response is a cache key: the software id
// nibble is always 0xA, so the software id never splits the cache.
std::vector<Byte> cache_key(std::vector<Byte> report);

// A command looked up in the cache as if in its key form, without making
// the key: a cache hit then allocates nothing.
struct CacheProbe {
    const std::vector<Byte>& command;
};
// Orders keys by unsigned bytes, lexicographically; a probe compares as its
// key form would.
struct CacheKeyLess {
    using is_transparent = void;
    bool operator()(const std::vector<Byte>& a, const std::vector<Byte>& b) const { return a < b; }
    bool operator()(const CacheProbe& a, const std::vector<Byte>& b) const;
    bool operator()(const std::vector<Byte>& a, const CacheProbe& b) const;
};
}  // namespace vxp

}  // namespace devio
