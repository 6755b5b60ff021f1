#pragma once

// The sections of the upload header that describe the machine and the
// attached devices. Each call adds its keys to the header object; they run
// on the worker, in this order, while the header is being collected.

#include <nlohmann/json.hpp>

namespace qv::inventory {

// `vant`: the maker's attached devices, read through the device library.
void addDeviceInventory(nlohmann::json& header);

// Operating system, computer, processors, video controllers and monitors.
void addMachineSections(nlohmann::json& header);

// `usb`: the USB devices of the machine.
void addUsbInventory(nlohmann::json& header);

}  // namespace qv::inventory
