#include "ReportDescriptor.h"

namespace devio_sim {

namespace {
// Short items: tag and type in the high bits, data size code in the low two.
constexpr Byte kUsagePage16 = 0x06;
constexpr Byte kUsage8 = 0x09;
constexpr Byte kUsage16 = 0x0A;
constexpr Byte kCollection = 0xA1;
constexpr Byte kApplication = 0x01;
constexpr Byte kEndCollection = 0xC0;
constexpr Byte kReportId = 0x85;
constexpr Byte kReportSize = 0x75;
constexpr Byte kReportCount = 0x95;
constexpr Byte kLogicalMinimum = 0x15;
constexpr Byte kLogicalMaximum16 = 0x26;
constexpr Byte kInput = 0x81;
constexpr Byte kOutput = 0x91;
// Data, variable, absolute: one value capability per item.
constexpr Byte kDataVariable = 0x02;

void usage(std::vector<Byte>& d, std::uint16_t u) {
    if (u <= 0xFF) {
        d.insert(d.end(), {kUsage8, static_cast<Byte>(u)});
    } else {
        d.insert(d.end(), {kUsage16, static_cast<Byte>(u & 0xFF), static_cast<Byte>(u >> 8)});
    }
}
}  // namespace

std::vector<Byte> buildReportDescriptor(const std::vector<Collection>& collections) {
    std::vector<Byte> d;
    for (const Collection& c : collections) {
        d.insert(d.end(), {kUsagePage16, static_cast<Byte>(c.usage_page & 0xFF),
                           static_cast<Byte>(c.usage_page >> 8)});
        usage(d, c.usage);
        d.insert(d.end(), {kCollection, kApplication, kReportId, c.report_id, kReportSize, 8,
                           kReportCount, static_cast<Byte>(c.size - 1), kLogicalMinimum, 0,
                           kLogicalMaximum16, 0xFF, 0x00});
        usage(d, c.usage);
        d.insert(d.end(), {kInput, kDataVariable});
        usage(d, c.usage);
        d.insert(d.end(), {kOutput, kDataVariable, kEndCollection});
    }
    return d;
}

}  // namespace devio_sim
