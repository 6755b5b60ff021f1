#pragma once

#include <cstdint>
#include <string_view>

// The buffered path to the file, shared by all logging threads: the current
// LogBuffer, the log thread that drains it, and the direct path after
// LogBuffer::shutdown (log_process.cpp).

namespace devio::xlog {

// Stores one file record; false if it was lost (counted, and reported later).
// After shutdown the record is written straight to the file.
bool logBufferWrite(uint64_t time, uint32_t thread, int level, const char* function,
                    std::string_view tag, std::string_view message);

// Whether LogBuffer::shutdown has begun.
bool isShutDown();

}  // namespace devio::xlog
