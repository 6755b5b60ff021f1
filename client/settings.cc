#include "settings.h"

#include <cctype>
#include <limits>
#include <stdexcept>

#include "globals.h"
#include "state_store.h"

namespace qv {

std::uint32_t settingFromText(const std::string& text) {
    size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    if (i >= text.size() || !std::isdigit(static_cast<unsigned char>(text[i]))) {
        throw std::invalid_argument("invalid stoul argument");
    }
    std::uint64_t value = 0;
    bool overflow = false;
    for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
        value = value * 10 + static_cast<std::uint64_t>(text[i] - '0');
        if (value > std::numeric_limits<std::uint32_t>::max()) overflow = true;
        if (overflow) value = std::numeric_limits<std::uint32_t>::max();
    }
    if (overflow) throw std::out_of_range("stoul argument out of range");
    // As strtoul: a minus sign negates in the unsigned type.
    auto result = static_cast<std::uint32_t>(value);
    return negative ? static_cast<std::uint32_t>(0u - result) : result;
}

void loadSettings() {
    std::uint32_t lineBuf = settingFromText(getSetting(keyMaxLineBuf, "20"));
    maxLineBuf = lineBuf < 2 ? 2 : lineBuf;
    maxPauseSeconds = settingFromText(getSetting(keyMaxPauseSeconds, "7200"));
    maxLastUploadSeconds = settingFromText(getSetting(keyMaxLastUploadSeconds, "259200"));
    minUploadSize = settingFromText(getSetting(keyMinUploadSize, "1048576"));
    timeoutShutdownSeconds = settingFromText(getSetting(keyTimeoutShutdownSeconds, "600"));
}

}  // namespace qv
