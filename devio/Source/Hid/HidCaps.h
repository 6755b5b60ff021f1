#pragma once

#include <cstdint>
#include <vector>

#include "Hid/ReportDescriptor.h"

namespace devio::hid {

// One capability: a data main item, or one usage (range) of it. What the
// acceptance rule reads of it is the report id; the rest is for the log.
struct Cap {
    std::uint8_t report_id = 0;
    bool is_button = false;
    bool is_range = false;
    std::uint16_t usage_page = 0;
    std::uint16_t usage_min = 0;
    std::uint16_t usage_max = 0;
    std::uint16_t bit_size = 0;
    std::uint16_t report_count = 0;
};

struct KindCaps {
    std::uint16_t report_length = 0;  // bytes, with the report id byte; 0 if none
    std::uint16_t data_indices = 0;
    std::vector<Cap> value_caps;
    std::vector<Cap> button_caps;
    std::vector<std::uint8_t> report_ids;  // ascending, each once
};

// The capabilities of one top-level collection, counted the way HID hosts
// count them: padding (constant items) takes room but gives no cap; an array
// item and a one-bit variable item are buttons, everything else a value; each
// usage or usage range of an item is one cap.
struct CollectionCaps {
    std::uint16_t usage_page = 0;
    std::uint16_t usage = 0;
    std::uint16_t link_collection_nodes = 0;
    KindCaps input, output, feature;
};

CollectionCaps summarizeCollection(const TopLevelCollection& tlc);

}  // namespace devio::hid
