#pragma once

// Displays as the kernel's DRM tree shows them: a card (cardN) has
// connectors (cardN-HDMI-A-1, ...), each with its status, whether a
// display controller drives it, and its list of modes.

#include <string>
#include <vector>

namespace qv::inventory {

struct DisplayMode {
    unsigned width = 0;
    unsigned height = 0;
};

// The cards of the DRM tree (cardN, not their connectors), in number order.
std::vector<std::string> drmCards();

// The mode of each connector of `card` that has a display connected and
// driven, in connector order. sysfs does not tell the mode a controller
// runs; it lists the connector's modes with the preferred one first, which
// is what a desktop sets unless told otherwise, so that one stands for it.
std::vector<DisplayMode> activeDisplays(const std::string& card);

}  // namespace qv::inventory
