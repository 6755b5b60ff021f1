// Fuzz target: any byte string as a pairing cache file. Malformed XML may
// throw the parser's exception and nothing else; the complete entries read
// must come back the same when printed and read again, and a product id
// must survive its round trip through the file's text.

#include <cstddef>
#include <cstdint>
#include <rapidxml/rapidxml.hpp>
#include <string>
#include <vector>

#include "Bus/Pairing/PairedCacheFile.h"

namespace pc = devio::paired_cache;

namespace {
bool same(const pc::Entry& a, const pc::Entry& b) {
    return a.path == b.path && a.pid == b.pid && a.name == b.name && a.radio == b.radio &&
           a.interface == b.interface && a.complete == b.complete;
}

bool has_zero(const pc::Entry& e) {
    for (const std::string* s : {&e.path, &e.pid, &e.name, &e.radio, &e.interface}) {
        if (s->find('\0') != std::string::npos) return true;
    }
    return false;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    std::vector<pc::Entry> read;
    try {
        read = pc::parse(text.data());
    } catch (const rapidxml::parse_error&) {
        return 0;
    }
    std::vector<pc::Entry> kept;
    for (const auto& e : read) {
        // A character reference to 0 puts a zero byte into a value, which no
        // file can carry through a reader that stops at the first zero.
        if (e.complete && !has_zero(e)) kept.push_back(e);
        const unsigned pid = pc::pid_value(e.pid);
        if (pc::pid_value(pc::pid_text(pid)) != pid) __builtin_trap();
    }
    const std::string printed = pc::print(kept);
    std::vector<char> again(printed.begin(), printed.end());
    again.push_back('\0');
    const auto back = pc::parse(again.data());
    if (back.size() != kept.size()) __builtin_trap();
    for (std::size_t i = 0; i < kept.size(); ++i) {
        if (!same(kept[i], back[i])) __builtin_trap();
    }
    if (pc::print(back) != printed) __builtin_trap();
    return 0;
}
