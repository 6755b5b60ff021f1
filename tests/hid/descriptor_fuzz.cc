// Fuzz target: any byte string through the whole parser and the caps summary.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "Hid/HidCaps.h"
#include "Hid/ReportDescriptor.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    devio::hid::ReportDescriptor rd;
    std::string error;
    if (devio::hid::parseReportDescriptor(std::span<const std::uint8_t>(data, size), rd, error)) {
        for (const auto& tlc : rd.collections) {
            const devio::hid::CollectionCaps caps = devio::hid::summarizeCollection(tlc);
            // A summary must agree with itself whatever the input was.
            if (caps.input.report_ids.size() > 256 || caps.output.report_ids.size() > 256)
                __builtin_trap();
        }
    } else if (error.empty()) {
        __builtin_trap();
    }
    return 0;
}
