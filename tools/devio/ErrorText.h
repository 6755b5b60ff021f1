#pragma once

#include <string>

#include "Base/ErrorCode.h"
#include "Base/ErrorRecord.h"

namespace devio_tool {

// A failure of the library, copied out of the calling thread's error record.
struct Failure {
    devio::ErrorCode err = devio::Success;
    std::string text;
    unsigned sys = 0;
};

const char* errorName(devio::ErrorCode err);
Failure lastFailure();
// "NoResponse (4)", with the library's text and system error when present.
std::string describe(const Failure& f);

}  // namespace devio_tool
