#pragma once

#include <cstdint>
#include <vector>

#include "Hid/HidItem.h"

namespace devio::hid {

// A usage or usage range as a local item gave it. Usages written with four
// data bytes carry their own page; the others take the page that is in force
// when the main item closes them.
struct UsageEntry {
    std::uint32_t min = 0;
    std::uint32_t max = 0;
    bool is_range = false;
    bool has_page = false;
};

struct GlobalState {
    std::uint16_t usage_page = 0;
    std::int32_t logical_min = 0;
    std::int32_t logical_max = 0;
    std::int32_t physical_min = 0;
    std::int32_t physical_max = 0;
    std::uint32_t unit_exponent = 0;
    std::uint32_t unit = 0;
    std::uint32_t report_size = 0;
    std::uint32_t report_count = 0;
    std::uint8_t report_id = 0;
};

enum class StateStatus {
    Ok,
    PushTooDeep,
    PopEmpty,
    ZeroReportId,
    ReportIdTooLarge,
    ReportSizeTooLarge,
    ReportCountTooLarge,
    TooManyUsages,
    UnpairedUsageRange,
};

const char* toText(StateStatus status);

// The item state table of a descriptor walk: the global items with their
// push/pop stack, and the local items that the next main item consumes.
// One walk, one thread.
class StateTable {
public:
    StateStatus applyGlobal(const Item& item);
    StateStatus applyLocal(const Item& item);

    // Usages for the next main item, with pages resolved against the global
    // usage page now in force. Leaves the local state as it is.
    std::vector<UsageEntry> resolvedUsages() const;
    void clearLocal();

    const GlobalState& global() const { return global_; }
    bool usesReportIds() const { return uses_report_ids_; }

private:
    GlobalState global_;
    std::vector<GlobalState> stack_;
    std::vector<UsageEntry> usages_;
    bool have_min_ = false;
    bool have_max_ = false;
    UsageEntry pending_range_;
    bool uses_report_ids_ = false;
};

}  // namespace devio::hid
