#pragma once

#include "xlog.h"

// Every line of Device carries its module tag and its function name.
#define DEV_LOG(level, function, ...) \
    ::devio::xLog("Device", level, "devio::Device::" function, __VA_ARGS__)
