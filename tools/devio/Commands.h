#pragma once

#include <memory>
#include <vector>

#include "CommandLine.h"
#include "Device/IDevice.h"

namespace devio_tool {

using Devices = std::vector<std::shared_ptr<devio::IDevice>>;

// Exit statuses.
constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

// Each prints its result (text, or JSON with --json) and returns the exit
// status; failures go to standard error.
int listDevices(const Options& options, const Devices& devices);
int showDevice(const Options& options, const Devices& devices);
int friendlyName(const Options& options, const Devices& devices);
int property(const Options& options, const Devices& devices);

}  // namespace devio_tool
