#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace devio::linux_hid {

// The identity of one HID interface on Linux. A hidraw node carries every
// top-level collection of its device, where other platforms show one
// interface per collection; a node with several collections is therefore
// named once per collection, "<dev>/hidrawN#colK" (K from 1), and a node with
// one collection simply "<dev>/hidrawN". Paths are lower case.
struct InterfacePath {
    std::string node;                       // "hidraw3"
    std::optional<std::size_t> collection;  // 0-based; absent for a whole node
};

std::string formatInterfacePath(const std::string& dev_root, const std::string& node,
                                std::optional<std::size_t> collection);

// Parses a path made by formatInterfacePath under the same root, compared
// without regard to case. Anything else gives nullopt.
std::optional<InterfacePath> parseInterfacePath(const std::string& dev_root,
                                                const std::string& path);

}  // namespace devio::linux_hid
