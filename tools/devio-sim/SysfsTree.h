#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Report.h"

namespace devio_sim {

// What the simulated sysfs tells about one HID node.
struct NodeIdentity {
    std::string bus = "usb";  // "usb", "bluetooth" (classic) or "ble" (Low Energy)
    std::uint16_t vid = 0;
    std::uint16_t pid = 0;
    std::uint16_t release = 0;
    std::string name;
    std::string serial;
    std::string address;   // Bluetooth: HID_UNIQ; empty gives one from pid and port
    int port = 1;          // where it sits; stays the same across replugs
    int hid_sequence = 1;  // the running number of the HID device
    std::vector<Byte> descriptor;
};

// The part of sysfs and /dev that the hidraw binding reads, under a machine
// directory: <dir>/sys/class/hidraw/hidrawN -> the node's directory below
// <dir>/sys/devices, with device/{uevent,report_descriptor}; the USB device
// above it with idVendor, idProduct, product, bcdDevice; and the node itself
// as <dir>/dev/hidrawN. Callers serialise their calls.
class SysfsTree {
public:
    explicit SysfsTree(std::string dir) : dir_(std::move(dir)) {}

    bool prepare(std::string& why) const;
    // Makes the node's device directories. The node shows in the hidraw
    // class only after publish(), so that a watcher of the class never sees
    // a half-made device.
    bool add(int hidraw, const NodeIdentity& id, std::string& why) const;
    bool publish(int hidraw, const NodeIdentity& id, std::string& why) const;
    // Takes the node out of the class first, then removes its directories.
    void remove(int hidraw, const NodeIdentity& id) const;

    std::string sysfsRoot() const { return dir_ + "/sys"; }
    std::string devRoot() const { return dir_ + "/dev"; }
    std::string nodePath(int hidraw) const {
        return devRoot() + "/hidraw" + std::to_string(hidraw);
    }

private:
    // The directory of the physical device (USB device, or Bluetooth
    // connection), relative to <dir>/sys/devices.
    static std::string physicalDir(const NodeIdentity& id);
    static std::string hidDir(const NodeIdentity& id);

    std::string dir_;
};

}  // namespace devio_sim
