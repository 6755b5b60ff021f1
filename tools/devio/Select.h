#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Device/IDevice.h"

namespace devio_tool {

// The one device that `what` names: its path, its product id (hexadecimal,
// with or without 0x), or a part of its name that no other device's name
// contains (case does not matter). Product names are tried before the
// devices' marketing names, which cost a question to each device. Empty,
// with the reason in `error`, when no device or more than one matches.
std::shared_ptr<devio::IDevice> selectDevice(
    const std::vector<std::shared_ptr<devio::IDevice>>& devices, const std::string& what,
    std::string& error);

// The same, for a command's DEVICE argument: the reason goes to standard
// error.
std::shared_ptr<devio::IDevice> deviceArgument(
    const std::vector<std::shared_ptr<devio::IDevice>>& devices, const std::string& what);

}  // namespace devio_tool
