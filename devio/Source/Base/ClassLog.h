#pragma once

#include "xlog.h"

// A class of the library logs under its own name as the module tag, with the
// function's full name: DEVIO_LOG("Device", 2, "open", "Device::open ...").
#define DEVIO_LOG(cls, level, function, ...) \
    ::devio::xLog(cls, level, "devio::" cls "::" function, __VA_ARGS__)
