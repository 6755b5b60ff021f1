#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace devio::linux_hid {

// The identity of one HID interface on Linux. A hidraw node carries every
// top-level collection of its device, where other platforms show one
// interface per collection; a node with several collections is therefore
// named once per collection, with "#colK" (K from 1) after its name.
//
// The kernel hands hidraw numbers out again on every plug and boot,
// sometimes to another device, so the name the bus gives out is the
// device's physical location: "<dev>/hidraw@<location>[#colK]". A path may
// also name a node directly, "<dev>/hidrawN[#colK]"; that form is what a
// device without a known location gets. Paths are lower case.
struct InterfacePath {
    std::string node;                       // "hidraw3", when the path names the node
    std::string location;                   // when it names the physical location
    std::optional<std::size_t> collection;  // 0-based; absent for a whole node
};

// `name` is a node name or locationName(location).
std::string formatInterfacePath(const std::string& dev_root, const std::string& name,
                                std::optional<std::size_t> collection);
std::string locationName(const std::string& location);

// Parses a path made by formatInterfacePath under the same root, compared
// without regard to case. Anything else gives nullopt.
std::optional<InterfacePath> parseInterfacePath(const std::string& dev_root,
                                                const std::string& path);

}  // namespace devio::linux_hid
