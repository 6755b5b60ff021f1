#pragma once

#include "xlog.h"

// A class of the library logs with the function's full name, under its own
// name as the module tag: DEVIO_LOG("Device", 2, "open", "Device::open ...").
#define DEVIO_LOG(cls, level, function, ...) DEVIO_LOG_TAG(cls, cls, level, function, __VA_ARGS__)
// The same under another module tag, for classes that log as their subsystem.
#define DEVIO_LOG_TAG(tag, cls, level, function, ...) \
    ::devio::xLog(tag, level, "devio::" cls "::" function, __VA_ARGS__)
