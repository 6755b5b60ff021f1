#include "guid.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <system_error>

namespace qv {

std::string newGuidText() {
    std::uint8_t bytes[16];
    size_t got = 0;
    while (got < sizeof bytes) {
        ssize_t n = ::getrandom(bytes + got, sizeof bytes - got, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            throw std::system_error(errno, std::generic_category(), "getrandom");
        }
        got += static_cast<size_t>(n);
    }
    // Version 4, variant 1, in the bytes where a GUID keeps them: the version
    // is the high nibble of the third field, which is stored low byte first.
    bytes[7] = static_cast<std::uint8_t>((bytes[7] & 0x0F) | 0x40);
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);

    static const char hex[] = "0123456789abcdef";
    std::string text;
    text.reserve(36);
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += hex[bytes[i] >> 4];
        text += hex[bytes[i] & 0x0F];
    }
    return text;
}

}  // namespace qv
