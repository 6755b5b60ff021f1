#include "Hid/HidCaps.h"

#include <algorithm>
#include <map>

namespace devio::hid {

namespace {

std::uint16_t clamp16(std::uint64_t v) {
    return static_cast<std::uint16_t>(std::min<std::uint64_t>(v, 0xFFFF));
}

void addCaps(const ReportField& f, KindCaps& kind) {
    if (f.isConstant()) return;
    const bool button = !f.isVariable() || f.report_size == 1;
    std::vector<UsageEntry> usages = f.usages;
    if (usages.empty())
        usages.push_back(UsageEntry{});  // a data item without usage still has a cap
    for (const UsageEntry& u : usages) {
        Cap cap;
        cap.report_id = f.report_id;
        cap.is_button = button;
        cap.is_range = u.is_range;
        cap.usage_page = static_cast<std::uint16_t>(u.min >> 16);
        cap.usage_min = static_cast<std::uint16_t>(u.min & 0xFFFF);
        cap.usage_max = static_cast<std::uint16_t>(u.max & 0xFFFF);
        cap.bit_size = clamp16(f.report_size);
        cap.report_count = clamp16(f.report_count);
        const std::uint64_t indices = u.is_range && cap.usage_max >= cap.usage_min
                                          ? std::uint64_t{cap.usage_max} - cap.usage_min + 1
                                          : 1;
        kind.data_indices = clamp16(kind.data_indices + indices);
        (button ? kind.button_caps : kind.value_caps).push_back(cap);
    }
}

// Every report carries its id byte in front, also the unnumbered report 0,
// so the length is the longest report's payload plus one.
void finishKind(const std::map<std::uint8_t, std::uint64_t>& bitsById, KindCaps& kind) {
    std::uint64_t longest = 0;
    for (const auto& [id, bits] : bitsById) {
        longest = std::max(longest, (bits + 7) / 8);
        kind.report_ids.push_back(id);
    }
    kind.report_length = bitsById.empty() ? 0 : clamp16(longest + 1);
}

}  // namespace

CollectionCaps summarizeCollection(const TopLevelCollection& tlc) {
    CollectionCaps caps;
    caps.usage_page = tlc.usage_page;
    caps.usage = tlc.usage;
    caps.link_collection_nodes = clamp16(tlc.link_collections);
    std::map<std::uint8_t, std::uint64_t> bits[3];
    KindCaps* kinds[3] = {&caps.input, &caps.output, &caps.feature};
    for (const ReportField& f : tlc.fields) {
        const auto k = static_cast<std::size_t>(f.kind);
        // Widened before multiplying: both factors are bounded, but their
        // product is not a 32-bit quantity in general.
        bits[k][f.report_id] += std::uint64_t{f.report_size} * f.report_count;
        addCaps(f, *kinds[k]);
    }
    for (std::size_t k = 0; k < 3; ++k) finishKind(bits[k], *kinds[k]);
    return caps;
}

}  // namespace devio::hid
