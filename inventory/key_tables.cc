#include "key_tables.h"

#include <charconv>
#include <optional>
#include <regex>

namespace qv::inventory {

namespace {

// Bytes to mebibytes in 64 bits: video memory beyond 4 GiB is common, and a
// 32-bit value would wrap it to nonsense.
std::optional<std::string> mebibytes(const std::string& text) {
    std::uint64_t bytes = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), bytes);
    if (ec != std::errc() || end == text.data()) return std::nullopt;
    return std::to_string(bytes >> 20);
}

std::string versionPart(const std::string& text, std::size_t group) {
    static const std::regex pattern("([^\\.]*)\\.([^\\.]*)\\.([^\\.]*)", std::regex::ECMAScript);
    std::smatch match;
    if (!std::regex_search(text, match, pattern) || !match[group].matched) return "";
    return match[group].str();
}

// "20170601220741.123456+120" -> "2017-06-01T22:07:41.123456Z", cut by
// position. The zone is dropped; our readers give UTC, so the "Z" holds.
std::optional<std::string> date(const std::string& text) {
    if (text.size() < 21) return std::nullopt;
    return text.substr(0, 4) + "-" + text.substr(4, 2) + "-" + text.substr(6, 2) + "T" +
           text.substr(8, 2) + ":" + text.substr(10, 2) + ":" + text.substr(12, 9) + "Z";
}

std::optional<std::string> convert(const std::string& text, Conversion conversion) {
    switch (conversion) {
        case Conversion::None:
            return text;
        case Conversion::Mebibytes:
            return mebibytes(text);
        case Conversion::VersionMajor:
            return versionPart(text, 1);
        case Conversion::VersionMinor:
            return versionPart(text, 2);
        case Conversion::VersionBuild:
            return versionPart(text, 3);
        case Conversion::Date:
            return date(text);
        case Conversion::FirstTwo:
            return text.substr(0, 2);
    }
    return std::nullopt;
}

}  // namespace

void applyTable(const Row& row, const KeyRule* rules, std::size_t count, nlohmann::json& target) {
    for (std::size_t i = 0; i < count; ++i) {
        const auto text = property(row, rules[i].property);
        if (!text) continue;
        if (auto value = convert(*text, rules[i].conversion)) target[rules[i].key] = *value;
    }
}

}  // namespace qv::inventory
