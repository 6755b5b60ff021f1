#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
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

inline std::uint32_t le32(const std::vector<Byte>& b, std::size_t at) {
    return static_cast<std::uint32_t>(le16(b, at + 2)) << 16 | le16(b, at);
}

// Firmware property values are 4-byte fields with their low byte first,
// holding either a signed integer or an IEEE 754 single; the float is the
// same bits, copied, never converted.
inline std::int32_t le32_int(const std::vector<Byte>& b, std::size_t at) {
    return static_cast<std::int32_t>(le32(b, at));
}

inline float le32_float(const std::vector<Byte>& b, std::size_t at) {
    const std::uint32_t bits = le32(b, at);
    float value = 0;
    std::memcpy(&value, &bits, sizeof value);
    return value;
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

// Stores a little-endian field in place at `at`, growing `out` to hold it.
inline void store_le32(std::vector<Byte>& out, std::size_t at, std::uint32_t value) {
    if (out.size() < at + 4) out.resize(at + 4);
    for (std::size_t i = 0; i < 4; ++i) out[at + i] = static_cast<Byte>(value >> (8 * i));
}

inline void store_le32_int(std::vector<Byte>& out, std::size_t at, std::int32_t value) {
    store_le32(out, at, static_cast<std::uint32_t>(value));
}

inline void store_le32_float(std::vector<Byte>& out, std::size_t at, float value) {
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    store_le32(out, at, bits);
}

}  // namespace devio::coding
