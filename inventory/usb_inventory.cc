// The `usb` section: one name per kind of USB device on the machine, in the
// form the platform's device tree uses for them (VID_2E5A&PID_1A2B, and
// VID_2E5A&PID_1A2B&MI_01 for each interface of a composite device; root
// hubs as ROOT_HUB20, ROOT_HUB30), each named once, in name order. Linux
// knows only the devices present now, not every one the machine has seen.

#include <cstdio>
#include <set>

#include "header_sections.h"
#include "machine_files.h"

namespace qv::inventory {

namespace {

std::optional<unsigned> hexAttribute(const std::string& path) {
    return hexId(firstLine(path).value_or(""));
}

// A root hub's name follows the USB version it speaks: " 3.10", " 2.00".
std::optional<std::string> rootHubName(const std::string& dir) {
    const auto version = leadingNumber(firstLine(dir + "version").value_or(""));
    if (!version) return std::nullopt;
    if (*version >= 3) return "ROOT_HUB30";
    if (*version == 2) return "ROOT_HUB20";
    return "ROOT_HUB";
}

void addDevice(const std::string& devices, const std::string& name, std::set<std::string>& names) {
    const std::string dir = devices + name + "/";
    if (name.rfind("usb", 0) == 0) {
        if (auto hub = rootHubName(dir)) names.insert(*hub);
        return;
    }
    const auto vendor = hexAttribute(dir + "idVendor");
    const auto product = hexAttribute(dir + "idProduct");
    if (!vendor || !product) return;
    char text[48];
    std::snprintf(text, sizeof text, "VID_%04X&PID_%04X", *vendor, *product);
    const std::string base = text;
    names.insert(base);
    if (leadingNumber(firstLine(dir + "bNumInterfaces").value_or("")).value_or(0) < 2) return;
    // Interfaces of the active configuration: <name>:<config>.<interface>.
    for (const std::string& entry : directoryNames(devices)) {
        if (entry.rfind(name + ":", 0) != 0) continue;
        const auto number = hexAttribute(devices + entry + "/bInterfaceNumber");
        if (!number) continue;
        std::snprintf(text, sizeof text, "&MI_%02X", *number);
        names.insert(base + text);
    }
}

}  // namespace

void addUsbInventory(nlohmann::json& header) {
    const std::string devices = sysfsRoot() + "/bus/usb/devices/";
    std::set<std::string> names;
    for (const std::string& name : directoryNames(devices)) {
        if (name.find(':') == std::string::npos) addDevice(devices, name, names);
    }
    header["usb"] = {{"a", nlohmann::json(std::vector<std::string>(names.begin(), names.end()))}};
}

}  // namespace qv::inventory
