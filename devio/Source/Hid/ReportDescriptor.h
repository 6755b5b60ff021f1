#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Hid/HidState.h"

namespace devio::hid {

enum class ReportKind : std::uint8_t { Input = 0, Output = 1, Feature = 2 };

// One Input, Output or Feature main item: a run of report_count elements of
// report_size bits in the report named by report_id.
struct ReportField {
    ReportKind kind = ReportKind::Input;
    std::uint8_t report_id = 0;
    std::uint32_t report_size = 0;
    std::uint32_t report_count = 0;
    std::uint32_t flags = 0;  // the main item's data bits
    std::int32_t logical_min = 0;
    std::int32_t logical_max = 0;
    std::vector<UsageEntry> usages;  // pages resolved

    bool isConstant() const { return (flags & 0x01) != 0; }
    bool isVariable() const { return (flags & 0x02) != 0; }
};

// A top-level collection: what one platform HID interface stands for.
struct TopLevelCollection {
    std::uint16_t usage_page = 0;
    std::uint16_t usage = 0;
    std::uint32_t link_collections = 0;  // itself and every nested collection
    std::vector<ReportField> fields;
};

struct ReportDescriptor {
    std::vector<TopLevelCollection> collections;
    bool uses_report_ids = false;
};

// Parses a report descriptor. Returns false with a short reason in `error`
// for input that cannot describe a device: a truncated item, unbalanced
// collections or push/pop, a limit of HidLimits.h passed. Long items and
// reserved tags are skipped; main items outside any collection are ignored.
bool parseReportDescriptor(std::span<const std::uint8_t> bytes, ReportDescriptor& out,
                           std::string& error);

}  // namespace devio::hid
