#pragma once

#include <vector>

#include "Base/Byte.h"

// How a report travels as the value of the vendor I/O characteristic. The
// value carries the report without its header: from byte 1 (the device
// index on) on the fixed-length characteristic, from byte 2 on the
// variable-length one, whose values also lose their trailing zeros.
namespace devio::gatt_framing {

// Every report over GATT is this long once padded or cut.
inline constexpr std::size_t kReportSize = 20;

// The report that a value stands for, before padding: a short report id
// for values below 8 bytes, the long one otherwise.
std::vector<Byte> reportFromValue(const std::vector<Byte>& value, bool fixed_length);
// The value that carries a report.
std::vector<Byte> valueFromReport(const std::vector<Byte>& report, bool fixed_length);

}  // namespace devio::gatt_framing
