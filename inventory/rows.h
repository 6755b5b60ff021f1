#pragma once

// The row model of the machine inventory. A query yields rows; a row maps a
// lower-case property name to its text. Each source of the machine's facts
// is a small reader that yields rows under the property names the key
// tables expect, and a fact the machine does not expose is simply absent
// from the row, so that its key is left out rather than invented.

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qv::inventory {

using Row = std::map<std::string, std::string>;
using Rows = std::vector<Row>;

// The property's text, or nothing when the row lacks it.
inline std::optional<std::string> property(const Row& row, const std::string& name) {
    const auto it = row.find(name);
    if (it == row.end()) return std::nullopt;
    return it->second;
}

// Rows of one management class, read from this machine: "select * from
// Win32_VideoController", "... Win32_OperatingSystem", "...
// Win32_ComputerSystem", "... Win32_Processor". A query of any other class
// yields no rows.
Rows query(const std::string& wql);

}  // namespace qv::inventory
