#include "drm_displays.h"

#include <algorithm>
#include <cctype>
#include <optional>

#include "machine_files.h"

namespace qv::inventory {

namespace {

bool isCard(const std::string& name) {
    return name.size() > 4 && name.rfind("card", 0) == 0 &&
           std::all_of(name.begin() + 4, name.end(),
                       [](unsigned char c) { return std::isdigit(c) != 0; });
}

// "1920x1080" (an interlaced mode ends in "i").
std::optional<DisplayMode> parseMode(const std::string& text) {
    const auto x = text.find('x');
    if (x == std::string::npos) return std::nullopt;
    const auto width = leadingNumber(text.substr(0, x));
    const auto height = leadingNumber(text.substr(x + 1));
    if (!width || !height || *width == 0 || *height == 0 || *width > 0xFFFFFFFFu ||
        *height > 0xFFFFFFFFu)
        return std::nullopt;
    return DisplayMode{static_cast<unsigned>(*width), static_cast<unsigned>(*height)};
}

}  // namespace

std::vector<std::string> drmCards() {
    std::vector<std::string> cards;
    for (const std::string& name : directoryNames(drmRoot())) {
        if (isCard(name)) cards.push_back(name);
    }
    std::stable_sort(cards.begin(), cards.end(), [](const std::string& a, const std::string& b) {
        return a.size() < b.size();
    });
    return cards;
}

std::vector<DisplayMode> activeDisplays(const std::string& card) {
    std::vector<DisplayMode> modes;
    const std::string root = drmRoot() + "/";
    for (const std::string& name : directoryNames(drmRoot())) {
        if (name.rfind(card + "-", 0) != 0) continue;
        const std::string connector = root + name + "/";
        if (firstLine(connector + "status").value_or("") != "connected") continue;
        if (firstLine(connector + "enabled").value_or("") != "enabled") continue;
        const auto first = firstLine(connector + "modes");
        if (!first) continue;
        if (const auto mode = parseMode(*first)) modes.push_back(*mode);
    }
    return modes;
}

}  // namespace qv::inventory
