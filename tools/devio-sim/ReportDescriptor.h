#pragma once

#include <vector>

#include "Description.h"

namespace devio_sim {

// The HID report descriptor of a simulated node: one top-level application
// collection per entry, each with one input and one output report of the
// entry's size (report id included), as 8-bit values.
std::vector<Byte> buildReportDescriptor(const std::vector<Collection>& collections);

}  // namespace devio_sim
