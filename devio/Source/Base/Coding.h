#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Base/Byte.h"

namespace devio::coding {

// Multi-byte fields of the report protocol are big-endian, but for the
// receiver's qid, which has its low byte first. A reader takes a byte beyond
// the end as 0: padding is not the sender's business, so a short answer
// reads as if padded.

inline unsigned u8(const std::vector<Byte>& b, std::size_t at) {
    return at < b.size() ? b[at] : 0u;
}

inline std::uint16_t be16(const std::vector<Byte>& b, std::size_t at) {
    return static_cast<std::uint16_t>(u8(b, at) << 8 | u8(b, at + 1));
}

inline std::uint32_t be32(const std::vector<Byte>& b, std::size_t at) {
    return static_cast<std::uint32_t>(be16(b, at)) << 16 | be16(b, at + 2);
}

inline std::uint16_t le16(const std::vector<Byte>& b, std::size_t at) {
    return static_cast<std::uint16_t>(u8(b, at + 1) << 8 | u8(b, at));
}

// Writers append the field to `out`.
inline void put_be16(std::vector<Byte>& out, unsigned value) {
    out.push_back(static_cast<Byte>(value >> 8));
    out.push_back(static_cast<Byte>(value));
}

inline void put_be32(std::vector<Byte>& out, std::uint32_t value) {
    put_be16(out, value >> 16);
    put_be16(out, value & 0xFFFFu);
}

}  // namespace devio::coding
