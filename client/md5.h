#pragma once

// MD5 message digest (RFC 1321). Used for the user hash and the upload
// token, never for anything that needs collision resistance.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace qv {

using Md5Digest = std::array<std::uint8_t, 16>;

Md5Digest md5(std::string_view data);

// 32 lower-case hex digits.
std::string md5Hex(std::string_view data);

// The digest in the standard base64 alphabet as six groups of four
// characters, the last group padded with zero bytes instead of "=": always
// 24 characters, always ending in "AA".
std::string md5Base64(std::string_view data);

}  // namespace qv
