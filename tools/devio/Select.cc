#include "Select.h"

#include <algorithm>
#include <cctype>
#include <functional>
#include <iostream>

#include "Features/IFeature.h"
#include "Features/IFeature0005DeviceNameType.h"

namespace devio_tool {

namespace {

using Devices = std::vector<std::shared_ptr<devio::IDevice>>;

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// A product id as the user writes it: 1 to 4 hexadecimal digits, 0x optional.
bool productId(const std::string& what, int& pid) {
    std::string digits = lower(what);
    if (digits.rfind("0x", 0) == 0) digits.erase(0, 2);
    if (digits.empty() || digits.size() > 4 ||
        !std::all_of(digits.begin(), digits.end(),
                     [](unsigned char c) { return std::isxdigit(c); }))
        return false;
    pid = std::stoi(digits, nullptr, 16);
    return true;
}

std::string marketingName(devio::IDevice& device) {
    auto f =
        std::dynamic_pointer_cast<devio::IFeature0005DeviceNameType>(device.feature_by_id(0x0005));
    std::string name;
    if (f && f->GetDeviceName(&name)) return name;
    return "";
}

Devices matching(const Devices& devices, const std::function<bool(devio::IDevice&)>& test) {
    Devices found;
    for (const auto& d : devices) {
        if (test(*d)) found.push_back(d);
    }
    return found;
}

}  // namespace

std::shared_ptr<devio::IDevice> selectDevice(const Devices& devices, const std::string& what,
                                             std::string& error) {
    const std::string key = lower(what);
    Devices found = matching(devices, [&](devio::IDevice& d) { return lower(d.path()) == key; });
    int pid = 0;
    if (found.empty() && productId(what, pid)) {
        found = matching(devices, [&](devio::IDevice& d) { return d.pid() == pid; });
    }
    if (found.empty() && !key.empty()) {
        found = matching(devices, [&](devio::IDevice& d) {
            return lower(d.name()).find(key) != std::string::npos;
        });
    }
    if (found.empty() && !key.empty()) {
        found = matching(devices, [&](devio::IDevice& d) {
            return lower(marketingName(d)).find(key) != std::string::npos;
        });
    }
    if (found.size() == 1) return found.front();
    if (found.empty()) {
        error = "no device matches '" + what + "' (see devio list)";
    } else {
        error = "'" + what + "' matches " + std::to_string(found.size()) + " devices:";
        for (const auto& d : found) error += " " + d->path();
    }
    return nullptr;
}

std::shared_ptr<devio::IDevice> deviceArgument(const Devices& devices, const std::string& what) {
    std::string error;
    auto device = selectDevice(devices, what, error);
    if (!device) std::cerr << "devio: " << error << "\n";
    return device;
}

}  // namespace devio_tool
