#pragma once

#include "xlog.h"

// A feature logs under its class name, with the function's full name.
#define FEATURE_LOG(cls, level, function, ...) \
    ::devio::xLog(cls, level, "devio::" cls "::" function, __VA_ARGS__)
