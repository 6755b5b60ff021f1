#pragma once

#include <memory>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Device/IDevice.h"

namespace devio_tool {

// Settings that must be in place before the library logs its first line:
// with --verbose the log reaches the console (the environment's own
// DEVIO_* settings win).
void prepareLogging(const Options& options);

// The feature cache folder: --cache-dir, else $XDG_CACHE_HOME/devio, else
// ~/.cache/devio. Empty when no home can be found.
std::string cacheDirectory(const Options& options);

// Configures the library: corded devices and receivers always, Bluetooth
// and BLE on request, the cache folder. Done before anything starts the
// library, since a change afterwards rebuilds every bus and device.
void configureLibrary(const Options& options);

// The devices present; the first call starts the library. False with the
// library's error record when the start failed.
bool presentDevices(std::vector<std::shared_ptr<devio::IDevice>>& devices);

}  // namespace devio_tool
