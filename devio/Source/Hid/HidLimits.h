#pragma once

#include <cstddef>
#include <cstdint>

namespace devio::hid {

// Bounds that keep a hostile descriptor from costing memory or time. Real
// devices stay far below each of them.
inline constexpr std::size_t kMaxDescriptorBytes = 4096;  // the kernel's own ceiling
inline constexpr std::size_t kMaxPushDepth = 16;
inline constexpr std::size_t kMaxCollectionDepth = 32;
inline constexpr std::size_t kMaxCollections = 256;
inline constexpr std::size_t kMaxFields = 1024;
inline constexpr std::size_t kMaxUsagesPerItem = 1024;
inline constexpr std::uint32_t kMaxReportSizeBits = 256;  // one field element
inline constexpr std::uint32_t kMaxReportCount = 16384;
inline constexpr std::uint64_t kMaxReportBytes = 16384;  // one whole report

}  // namespace devio::hid
