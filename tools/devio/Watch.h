#pragma once

#include "CommandLine.h"

namespace devio_tool {

// `devio watch`: lends the library the main thread as its run loop and
// prints every event of every device, one line (or JSON object) each, until
// SIGINT or SIGTERM. Returns the exit status.
int watch(const Options& options);

}  // namespace devio_tool
