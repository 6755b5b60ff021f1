#include "Windows/GattFraming.h"

#include <algorithm>

namespace devio::gatt_framing {

namespace {
constexpr Byte kShortReport = 0x10;
constexpr Byte kLongReport = 0x11;
constexpr Byte kNoDeviceIndex = 0xFF;
constexpr std::size_t kShortValue = 8;
}  // namespace

std::vector<Byte> reportFromValue(const std::vector<Byte>& value, bool fixed_length) {
    std::vector<Byte> report;
    report.reserve(value.size() + 2);
    report.push_back(value.size() < kShortValue ? kShortReport : kLongReport);
    if (!fixed_length) report.push_back(kNoDeviceIndex);
    report.insert(report.end(), value.begin(), value.end());
    return report;
}

std::vector<Byte> valueFromReport(const std::vector<Byte>& report, bool fixed_length) {
    if (fixed_length) {
        std::vector<Byte> padded = report;
        padded.resize(kReportSize, 0);
        return {padded.begin() + 1, padded.end()};
    }
    std::vector<Byte> value(
        report.begin() + static_cast<long>(std::min<std::size_t>(2, report.size())), report.end());
    while (value.size() > 1 && value.back() == 0) value.pop_back();
    if (value.empty()) value.push_back(0);
    return value;
}

}  // namespace devio::gatt_framing
