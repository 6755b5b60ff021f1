#include "Bus/Pairing/PairedCacheFile.h"

#include <cstdio>
#include <cstdlib>
#include <iterator>

// As in the feature cache file: GCC cannot see that the XML library sets a
// node's last-attribute link before reading it once the pool is inlined.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <rapidxml/rapidxml.hpp>
#include <rapidxml/rapidxml_print.hpp>

namespace devio::paired_cache {

namespace {
bool take(const rapidxml::xml_node<>* node, const char* name, std::string& out) {
    const auto* attribute = node->first_attribute(name);
    if (attribute == nullptr) return false;
    out.assign(attribute->value(), attribute->value_size());
    return true;
}
}  // namespace

std::vector<Entry> parse(char* text) {
    rapidxml::xml_document<> doc;
    doc.parse<rapidxml::parse_default>(text);
    std::vector<Entry> out;
    const rapidxml::xml_node<>* devices = doc.first_node("devices");
    if (devices == nullptr) return out;
    for (const auto* node = devices->first_node("device"); node != nullptr;
         node = node->next_sibling("device")) {
        Entry e;
        // Every attribute is read, so that each shows in the log.
        const bool path = take(node, "path", e.path);
        const bool pid = take(node, "pid", e.pid);
        const bool name = take(node, "name", e.name);
        const bool radio = take(node, "radio", e.radio);
        const bool interface = take(node, "interface", e.interface);
        e.complete = path && pid && name && radio && interface;
        out.push_back(std::move(e));
    }
    return out;
}

std::string print(const std::vector<Entry>& entries) {
    rapidxml::xml_document<> doc;
    // The document keeps pointers only: every text it prints must live in
    // its own pool.
    auto add_attribute = [&doc](rapidxml::xml_node<>* node, const char* name,
                                const std::string& value) {
        node->append_attribute(doc.allocate_attribute(
            name, doc.allocate_string(value.c_str(), value.size()), 0, value.size()));
    };
    auto* declaration = doc.allocate_node(rapidxml::node_declaration);
    declaration->append_attribute(doc.allocate_attribute("version", "1.0"));
    declaration->append_attribute(doc.allocate_attribute("encoding", "utf-8"));
    doc.append_node(declaration);
    auto* devices = doc.allocate_node(rapidxml::node_element, "devices");
    doc.append_node(devices);
    for (const Entry& e : entries) {
        auto* device = doc.allocate_node(rapidxml::node_element, "device");
        add_attribute(device, "path", e.path);
        add_attribute(device, "pid", e.pid);
        add_attribute(device, "name", e.name);
        add_attribute(device, "radio", e.radio);
        add_attribute(device, "interface", e.interface);
        devices->append_node(device);
    }
    std::string out;
    rapidxml::print(std::back_inserter(out), doc, 0);
    return out;
}

std::string pid_text(unsigned pid) {
    char text[16];
    std::snprintf(text, sizeof text, "%X", pid);
    return text;
}

unsigned pid_value(const std::string& text) {
    return static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, 16));
}

}  // namespace devio::paired_cache
