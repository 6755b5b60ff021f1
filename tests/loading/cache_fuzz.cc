// Fuzz target: any byte string as a feature cache file. Malformed XML may
// throw the parser's exception and nothing else; whatever is read must come
// back the same when printed and read again.

#include <cstddef>
#include <cstdint>
#include <rapidxml/rapidxml.hpp>
#include <string>
#include <vector>

#include "Device/FeatureCacheFile.h"

namespace fc = devio::feature_cache;

namespace {
bool same(const fc::Document& a, const fc::Document& b) {
    if (a.has_cache != b.has_cache || a.fw != b.fw || a.commands.size() != b.commands.size())
        return false;
    for (std::size_t i = 0; i < a.commands.size(); ++i) {
        if (a.commands[i].cmd != b.commands[i].cmd || a.commands[i].rsp != b.commands[i].rsp)
            return false;
    }
    return true;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    fc::Document doc;
    try {
        doc = fc::parse(text.data());
    } catch (const rapidxml::parse_error&) {
        return 0;
    }
    if (!doc.has_cache && (doc.has_fw || !doc.commands.empty())) __builtin_trap();
    // A character reference to 0 puts a zero byte into the text, which no
    // file can carry through a reader that stops at the first zero.
    if (doc.fw.find('\0') != std::string::npos) return 0;
    doc.has_cache = true;
    const std::string printed = fc::print(doc.fw, "/dev/hidraw0", doc.commands);
    std::vector<char> again(printed.begin(), printed.end());
    again.push_back('\0');
    const fc::Document back = fc::parse(again.data());
    if (!back.has_fw || !same(doc, back)) __builtin_trap();
    if (fc::print(back.fw, "/dev/hidraw0", back.commands) != printed) __builtin_trap();
    return 0;
}
