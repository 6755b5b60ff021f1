#include "Hid/HidState.h"

#include "Hid/HidLimits.h"

namespace devio::hid {

namespace {

// Global item tags (HID 1.11, 6.2.2.7).
enum GlobalTag : std::uint8_t {
    kUsagePage = 0x0,
    kLogicalMin = 0x1,
    kLogicalMax = 0x2,
    kPhysicalMin = 0x3,
    kPhysicalMax = 0x4,
    kUnitExponent = 0x5,
    kUnit = 0x6,
    kReportSize = 0x7,
    kReportId = 0x8,
    kReportCount = 0x9,
    kPush = 0xA,
    kPop = 0xB,
};

// Local item tags (HID 1.11, 6.2.2.8).
enum LocalTag : std::uint8_t {
    kUsage = 0x0,
    kUsageMin = 0x1,
    kUsageMax = 0x2,
};

// A four-byte usage names its page in the high half.
UsageEntry usageFrom(const Item& item) {
    UsageEntry e;
    e.min = e.max = item.udata;
    e.has_page = item.size == 4;
    return e;
}

}  // namespace

const char* toText(StateStatus status) {
    switch (status) {
        case StateStatus::Ok:
            return "ok";
        case StateStatus::PushTooDeep:
            return "push nested too deep";
        case StateStatus::PopEmpty:
            return "pop without push";
        case StateStatus::ZeroReportId:
            return "report id 0";
        case StateStatus::ReportIdTooLarge:
            return "report id above 255";
        case StateStatus::ReportSizeTooLarge:
            return "report size too large";
        case StateStatus::ReportCountTooLarge:
            return "report count too large";
        case StateStatus::TooManyUsages:
            return "too many usages";
        case StateStatus::UnpairedUsageRange:
            return "usage minimum without maximum";
    }
    return "unknown";
}

StateStatus StateTable::applyGlobal(const Item& item) {
    switch (item.tag) {
        case kUsagePage:
            global_.usage_page = static_cast<std::uint16_t>(item.udata);
            break;
        case kLogicalMin:
            global_.logical_min = item.sdata;
            break;
        // A maximum that fits the unsigned width but not the signed one is
        // common (26 FF 00 is 255); keep it positive when the minimum is not
        // negative.
        case kLogicalMax:
            global_.logical_max =
                global_.logical_min >= 0 ? static_cast<std::int32_t>(item.udata) : item.sdata;
            break;
        case kPhysicalMin:
            global_.physical_min = item.sdata;
            break;
        case kPhysicalMax:
            global_.physical_max = item.sdata;
            break;
        case kUnitExponent:
            global_.unit_exponent = item.udata;
            break;
        case kUnit:
            global_.unit = item.udata;
            break;
        case kReportSize:
            if (item.udata > kMaxReportSizeBits) return StateStatus::ReportSizeTooLarge;
            global_.report_size = item.udata;
            break;
        case kReportCount:
            if (item.udata > kMaxReportCount) return StateStatus::ReportCountTooLarge;
            global_.report_count = item.udata;
            break;
        case kReportId:
            if (item.udata == 0) return StateStatus::ZeroReportId;
            if (item.udata > 0xFF) return StateStatus::ReportIdTooLarge;
            global_.report_id = static_cast<std::uint8_t>(item.udata);
            uses_report_ids_ = true;
            break;
        case kPush:
            if (stack_.size() >= kMaxPushDepth) return StateStatus::PushTooDeep;
            stack_.push_back(global_);
            break;
        case kPop:
            if (stack_.empty()) return StateStatus::PopEmpty;
            global_ = stack_.back();
            stack_.pop_back();
            break;
        default:
            break;  // reserved tags carry nothing we use
    }
    return StateStatus::Ok;
}

StateStatus StateTable::applyLocal(const Item& item) {
    if (usages_.size() >= kMaxUsagesPerItem) return StateStatus::TooManyUsages;
    switch (item.tag) {
        case kUsage:
            usages_.push_back(usageFrom(item));
            break;
        case kUsageMin:
            pending_range_.min = item.udata;
            pending_range_.has_page = item.size == 4;
            have_min_ = true;
            break;
        case kUsageMax:
            if (!have_min_) return StateStatus::UnpairedUsageRange;
            pending_range_.max = item.udata;
            have_max_ = true;
            break;
        default:
            break;  // designators, strings and delimiters do not shape reports
    }
    if (have_min_ && have_max_) {
        pending_range_.is_range = true;
        usages_.push_back(pending_range_);
        pending_range_ = UsageEntry{};
        have_min_ = have_max_ = false;
    }
    return StateStatus::Ok;
}

std::vector<UsageEntry> StateTable::resolvedUsages() const {
    std::vector<UsageEntry> out = usages_;
    const std::uint32_t page = static_cast<std::uint32_t>(global_.usage_page) << 16;
    for (UsageEntry& e : out) {
        if (e.has_page) continue;
        e.min = page | (e.min & 0xFFFF);
        e.max = page | (e.max & 0xFFFF);
        e.has_page = true;
    }
    return out;
}

void StateTable::clearLocal() {
    usages_.clear();
    pending_range_ = UsageEntry{};
    have_min_ = have_max_ = false;
}

}  // namespace devio::hid
