#pragma once

#include <cstdint>

#include "Base/ErrorCode.h"

namespace devio {

// The reason for the last failure on this thread. Operations of the library
// report failure as false or an empty result and leave the reason here; a
// success leaves the record as it was, so callers read it only after a
// failure.
struct ErrorRecord {
    ErrorCode err = Success;
    const char* str = nullptr;  // a static text, or null
    std::uint32_t sys = 0;      // platform error, or the device's raw error byte
};

// The calling thread's record. Each thread has its own; no lock is needed.
ErrorRecord& error_record();

// Writes all three fields of the calling thread's record.
void set_error(ErrorCode err, const char* str = nullptr, std::uint32_t sys = 0);

}  // namespace devio
