#include "Linux/InterfacePath.h"

#include <algorithm>

#include "Linux/SysfsHidraw.h"

namespace devio::linux_hid {

namespace {
constexpr const char kCollectionMark[] = "#col";
constexpr const char kLocationMark[] = "hidraw@";
constexpr std::size_t kMaxCollectionDigits = 4;

bool allDigits(const std::string& s) {
    return !s.empty() &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}
}  // namespace

std::string locationName(const std::string& location) {
    return kLocationMark + location;
}

std::string formatInterfacePath(const std::string& dev_root, const std::string& name,
                                std::optional<std::size_t> collection) {
    std::string path = dev_root + "/" + name;
    if (collection) path += kCollectionMark + std::to_string(*collection + 1);
    return toLower(path);
}

std::optional<InterfacePath> parseInterfacePath(const std::string& dev_root,
                                                const std::string& path) {
    const std::string prefix = toLower(dev_root) + "/";
    const std::string lower = toLower(path);
    if (lower.size() <= prefix.size() || lower.compare(0, prefix.size(), prefix) != 0)
        return std::nullopt;
    std::string rest = lower.substr(prefix.size());
    InterfacePath out;
    const auto mark = rest.rfind(kCollectionMark);
    if (mark != std::string::npos) {
        const std::string digits = rest.substr(mark + sizeof kCollectionMark - 1);
        if (!allDigits(digits) || digits.size() > kMaxCollectionDigits) return std::nullopt;
        const std::size_t k = std::stoul(digits);
        if (k == 0) return std::nullopt;
        out.collection = k - 1;
        rest.resize(mark);
    }
    constexpr std::size_t kLocationMarkSize = sizeof kLocationMark - 1;
    if (rest.size() > kLocationMarkSize && rest.compare(0, kLocationMarkSize, kLocationMark) == 0) {
        out.location = rest.substr(kLocationMarkSize);
        return out;
    }
    if (rest.size() <= 6 || rest.compare(0, 6, "hidraw") != 0 || !allDigits(rest.substr(6)))
        return std::nullopt;
    out.node = rest;
    return out;
}

}  // namespace devio::linux_hid
