#pragma once

#include <cstdint>

namespace devio {

// One octet of a report. A report travels as a vector of these, whole, with
// the report id as its first byte.
using Byte = std::uint8_t;

}  // namespace devio
