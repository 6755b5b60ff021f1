// The device-tree lookups of the hidraw binding: instance ids are the sysfs
// directories of devices, kept in lower case like every path.

#include <unistd.h>

#include "Linux/InterfacePath.h"
#include "Linux/LinuxSystem.h"

namespace devio {

namespace {
bool isUnder(const std::string& path, const std::string& dir) {
    return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 &&
           path[dir.size()] == '/';
}
}  // namespace

std::string LinuxSystem::setupdi_instance_from_path(const std::string& path) {
    const auto parsed = linux_hid::parseInterfacePath(dev_root_, path);
    const std::string node = parsed ? resolve(*parsed) : std::string();
    if (node.empty()) return {};
    return linux_hid::toLower(sysfs_.deviceDirectory(node));
}

std::string LinuxSystem::setupdi_instance_from_devnode(std::uint32_t devnode) {
    return linux_hid::toLower(sysfs_.deviceDirectory("hidraw" + std::to_string(devnode)));
}

// A device directly below <sysfs>/devices is a root: its parent is no
// device, and the walk stands still, as it does for any failure.
//
// The HID device of a Bluetooth device hangs below uhid (Low Energy, shared
// by every such device) or below one connection of the radio, neither of
// which is the device; its parent is named after the device's address
// instead, so that the pieces of one device meet and those of two never do.
std::string LinuxSystem::setupdi_parent(const std::string& instance) {
    if (instance.empty()) return instance;
    const std::string real = linux_hid::resolveCaseInsensitive(instance);
    const std::string devices = linux_hid::resolveCaseInsensitive(sysfs_.root() + "/devices");
    if (real.empty() || devices.empty()) return instance;
    const auto slash = real.rfind('/');
    const std::string parent = real.substr(0, slash);
    std::string text;
    int err = 0;
    std::uint64_t address = 0;
    if (linux_hid::readSmallFile(real + "/uevent", text, err)) {
        const linux_hid::Uevent ev = linux_hid::parseUevent(text);
        if (ev.has_id && ev.bus == linux_hid::kBusBluetooth &&
            linux_hid::parseBluetoothAddress(ev.uniq, address)) {
            return linux_hid::toLower(parent + "/bluetooth-" + ev.uniq);
        }
    }
    if (!isUnder(parent, devices)) return instance;
    return linux_hid::toLower(parent);
}

std::string LinuxSystem::setupdi_path_from_instance(const std::string& instance,
                                                    const std::string& interface_class) {
    if (instance.empty() || interface_class != hid_interface_class()) return {};
    int err = 0;
    for (const std::string& node : sysfs_.listNodes(err)) {
        const std::string dir = linux_hid::toLower(sysfs_.deviceDirectory(node));
        if (dir == instance || isUnder(dir, instance)) {
            const std::vector<HidInterface> found = interfacesOf(node);
            if (!found.empty()) return found.front().path;
        }
    }
    return {};
}

}  // namespace devio
