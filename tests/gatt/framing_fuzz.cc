// Fuzz target: any characteristic value and any report through the GATT
// framing. The first byte picks the characteristic; the rest is the bytes.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Windows/GattFraming.h"

namespace framing = devio::gatt_framing;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const bool fixed = (data[0] & 1) != 0;
    const std::vector<devio::Byte> bytes(data + 1, data + size);

    // A value read: its report holds it whole behind the header.
    const auto report = framing::reportFromValue(bytes, fixed);
    const std::size_t header = fixed ? 1 : 2;
    if (report.size() != bytes.size() + header) __builtin_trap();
    if (report[0] != (bytes.size() < 8 ? 0x10 : 0x11)) __builtin_trap();
    if (!fixed && report[1] != 0xFF) __builtin_trap();

    // A report written: the value is never empty, the fixed one always 19
    // bytes, and the report's bytes behind the header survive in it (the
    // fixed framing cuts the report at 20 bytes).
    const auto value = framing::valueFromReport(bytes, fixed);
    if (value.empty()) __builtin_trap();
    if (fixed && value.size() != framing::kReportSize - 1) __builtin_trap();
    if (!fixed && value.size() > 1 && value.back() == 0) __builtin_trap();
    for (std::size_t i = 0; i < value.size(); ++i) {
        const std::size_t at = i + header;
        const bool kept = at < bytes.size() && (!fixed || at < framing::kReportSize);
        const devio::Byte expected = kept ? bytes[at] : 0;
        if (value[i] != expected) __builtin_trap();
    }
    // Reading back what was written gives the written report's bytes again.
    if (fixed && bytes.size() <= framing::kReportSize) {
        const auto again = framing::reportFromValue(value, true);
        for (std::size_t i = 1; i < bytes.size(); ++i) {
            if (again[i] != bytes[i]) __builtin_trap();
        }
    }
    return 0;
}
