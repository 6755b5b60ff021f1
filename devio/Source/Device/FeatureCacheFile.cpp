#include "Device/FeatureCacheFile.h"

#include <cstdio>
#include <iterator>

// The XML library leaves a node's last-attribute link unset while it has no
// first one, and reads it only after setting it; GCC cannot see that once
// the pool's nodes are inlined into our functions, and it warns where the
// inlined code ends up, so the setting holds for the whole file.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <rapidxml/rapidxml.hpp>
#include <rapidxml/rapidxml_print.hpp>

namespace devio::feature_cache {

namespace {
constexpr std::uint64_t kFnvOffsetBasis = 0xcbf29ce484222325ull;
constexpr std::uint64_t kFnvPrime = 0x100000001b3ull;
constexpr char kDigits[] = "0123456789ABCDEF";

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}
}  // namespace

std::uint64_t path_hash(const std::string& text) {
    std::uint64_t h = kFnvOffsetBasis;
    for (char c : text) {
        h ^= static_cast<unsigned char>(c);
        h *= kFnvPrime;
    }
    return h;
}

std::string file_name(const std::string& dir, unsigned pid, const std::string& path) {
    char name[32];
    std::snprintf(name, sizeof name, "%X_%X.xml", pid,
                  static_cast<unsigned>(path_hash(path) & 0xFFFFFFFFu));
    return dir + name;
}

std::string to_hex(const std::vector<Byte>& bytes) {
    std::string out;
    out.reserve(bytes.size() * 2);
    for (Byte b : bytes) {
        out.push_back(kDigits[b >> 4]);
        out.push_back(kDigits[b & 0x0F]);
    }
    return out;
}

std::vector<Byte> from_hex(const char* text, std::size_t size) {
    std::vector<Byte> out;
    out.reserve(size / 2);
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        const int hi = hex_value(text[i]);
        const int lo = hex_value(text[i + 1]);
        if (hi < 0 || lo < 0) continue;
        out.push_back(static_cast<Byte>(hi << 4 | lo));
    }
    return out;
}

Document parse(char* text) {
    rapidxml::xml_document<> doc;
    doc.parse<rapidxml::parse_default>(text);
    Document out;
    const rapidxml::xml_node<>* cache = doc.first_node("cache");
    if (cache == nullptr) return out;
    out.has_cache = true;
    if (const auto* fw = cache->first_attribute("fw")) {
        out.has_fw = true;
        out.fw.assign(fw->value(), fw->value_size());
    }
    for (const auto* node = cache->first_node("command"); node != nullptr;
         node = node->next_sibling("command")) {
        const auto* cmd = node->first_attribute("cmd");
        const auto* rsp = node->first_attribute("rsp");
        if (cmd == nullptr || rsp == nullptr) continue;
        out.commands.push_back(
            {from_hex(cmd->value(), cmd->value_size()), from_hex(rsp->value(), rsp->value_size())});
    }
    return out;
}

std::string print(const std::string& fw, const std::string& path,
                  const std::vector<Entry>& commands) {
    rapidxml::xml_document<> doc;
    // The document keeps pointers only: every text it prints must live in
    // its own pool.
    auto text = [&doc](const std::string& s) { return doc.allocate_string(s.c_str(), s.size()); };
    auto add_attribute = [&](rapidxml::xml_node<>* node, const char* name,
                             const std::string& value) {
        node->append_attribute(doc.allocate_attribute(name, text(value), 0, value.size()));
    };

    auto* declaration = doc.allocate_node(rapidxml::node_declaration);
    declaration->append_attribute(doc.allocate_attribute("version", "1.0"));
    declaration->append_attribute(doc.allocate_attribute("encoding", "utf-8"));
    doc.append_node(declaration);

    auto* cache = doc.allocate_node(rapidxml::node_element, "cache");
    add_attribute(cache, "fw", fw);
    add_attribute(cache, "path", path);
    doc.append_node(cache);
    for (const Entry& e : commands) {
        auto* command = doc.allocate_node(rapidxml::node_element, "command");
        add_attribute(command, "cmd", to_hex(e.cmd));
        add_attribute(command, "rsp", to_hex(e.rsp));
        cache->append_node(command);
    }
    std::string out;
    rapidxml::print(std::back_inserter(out), doc, 0);
    return out;
}

}  // namespace devio::feature_cache
