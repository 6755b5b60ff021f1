#pragma once

#include "xlog.h"

// Every line of Win32Device carries its module tag and its function name.
#define W32D_LOG(level, function, ...) \
    ::devio::xLog("Win32Device", level, "devio::Win32Device::" function, __VA_ARGS__)
