#include "md5.h"

#include <cstring>

namespace qv {

namespace {

// Per-round shift amounts and the sine-derived constants of RFC 1321.
constexpr std::uint32_t shifts[64] = {7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
                                      5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
                                      4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
                                      6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21};

constexpr std::uint32_t sines[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

std::uint32_t rotl(std::uint32_t x, std::uint32_t n) {
    return (x << n) | (x >> (32 - n));
}

// Processes one 64-byte block; words are little-endian whatever the host is.
void transform(std::uint32_t state[4], const std::uint8_t* block) {
    std::uint32_t m[16];
    for (int i = 0; i < 16; ++i) {
        m[i] = std::uint32_t{block[4 * i]} | std::uint32_t{block[4 * i + 1]} << 8 |
               std::uint32_t{block[4 * i + 2]} << 16 | std::uint32_t{block[4 * i + 3]} << 24;
    }
    std::uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (std::uint32_t i = 0; i < 64; ++i) {
        std::uint32_t f;
        std::uint32_t g;
        if (i < 16) {
            f = (b & c) | (~b & d);
            g = i;
        } else if (i < 32) {
            f = (d & b) | (~d & c);
            g = (5 * i + 1) % 16;
        } else if (i < 48) {
            f = b ^ c ^ d;
            g = (3 * i + 5) % 16;
        } else {
            f = c ^ (b | ~d);
            g = (7 * i) % 16;
        }
        std::uint32_t next = b + rotl(a + f + sines[i] + m[g], shifts[i]);
        a = d;
        d = c;
        c = b;
        b = next;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

}  // namespace

Md5Digest md5(std::string_view data) {
    std::uint32_t state[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(data.data());
    size_t whole = data.size() / 64 * 64;
    for (size_t off = 0; off < whole; off += 64) transform(state, bytes + off);

    // Padding: a 1 bit, zeros up to 56 mod 64, then the bit length as 64 bits
    // little-endian. One or two final blocks.
    std::uint8_t tail[128] = {};
    size_t rest = data.size() - whole;
    if (rest > 0) std::memcpy(tail, bytes + whole, rest);
    tail[rest] = 0x80;
    size_t tailLen = rest < 56 ? 64 : 128;
    std::uint64_t bits = static_cast<std::uint64_t>(data.size()) * 8;
    for (int i = 0; i < 8; ++i) tail[tailLen - 8 + i] = static_cast<std::uint8_t>(bits >> (8 * i));
    for (size_t off = 0; off < tailLen; off += 64) transform(state, tail + off);

    Md5Digest digest;
    for (int i = 0; i < 16; ++i)
        digest[i] = static_cast<std::uint8_t>(state[i / 4] >> (8 * (i % 4)));
    return digest;
}

std::string md5Hex(std::string_view data) {
    static const char hex[] = "0123456789abcdef";
    std::string text;
    for (std::uint8_t b : md5(data)) {
        text += hex[b >> 4];
        text += hex[b & 0x0F];
    }
    return text;
}

std::string md5Base64(std::string_view data) {
    static const char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    // 16 digest bytes and two zero bytes make six whole groups of three.
    std::uint8_t in[18] = {};
    Md5Digest digest = md5(data);
    std::memcpy(in, digest.data(), digest.size());
    std::string text;
    for (int i = 0; i < 18; i += 3) {
        std::uint32_t group =
            std::uint32_t{in[i]} << 16 | std::uint32_t{in[i + 1]} << 8 | in[i + 2];
        for (int shift = 18; shift >= 0; shift -= 6) text += alphabet[(group >> shift) & 0x3F];
    }
    return text;
}

}  // namespace qv
