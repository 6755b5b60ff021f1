#include "SysfsTree.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace devio_sim {

namespace fs = std::filesystem;

namespace {
constexpr unsigned kBusUsb = 0x0003;
constexpr unsigned kBusBluetooth = 0x0005;
constexpr int kHidrawMajor = 240;

std::string hex(unsigned v, int digits, bool upper = true) {
    char buf[16];
    std::snprintf(buf, sizeof buf, upper ? "%0*X" : "%0*x", digits, v);
    return buf;
}

bool write(const fs::path& path, const std::string& text, std::string& why) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out.flush()) {
        why = "cannot write " + path.string();
        return false;
    }
    return true;
}

bool overBluetooth(const NodeIdentity& id) {
    return id.bus == "bluetooth" || id.bus == "ble";
}

unsigned busOf(const NodeIdentity& id) {
    return overBluetooth(id) ? kBusBluetooth : kBusUsb;
}

// A stable Bluetooth address for a simulated device.
std::string address(const NodeIdentity& id) {
    if (!id.address.empty()) return id.address;
    return "00:1f:20:" + hex(id.pid >> 8, 2, false) + ":" + hex(id.pid & 0xFF, 2, false) + ":" +
           hex(static_cast<unsigned>(id.port & 0xFF), 2, false);
}
}  // namespace

// A classic device's HID device hangs below its connection to the radio;
// a Low Energy device's below uhid, which all of them share, as BlueZ makes
// them.
std::string SysfsTree::physicalDir(const NodeIdentity& id) {
    const std::string port = std::to_string(id.port);
    if (id.bus == "bluetooth") return "sim/bluetooth/hci0/hci0:" + port;
    if (id.bus == "ble") return "virtual/misc/uhid";
    return "sim/usb1/1-" + port;
}

std::string SysfsTree::hidDir(const NodeIdentity& id) {
    const std::string name = hex(busOf(id), 4) + ":" + hex(id.vid, 4) + ":" + hex(id.pid, 4) + "." +
                             hex(static_cast<unsigned>(id.hid_sequence & 0xFFFF), 4);
    if (overBluetooth(id)) return physicalDir(id) + "/" + name;
    return physicalDir(id) + "/1-" + std::to_string(id.port) + ":1.0/" + name;
}

bool SysfsTree::prepare(std::string& why) const {
    std::error_code ec;
    for (const std::string& d :
         {sysfsRoot() + "/class/hidraw", sysfsRoot() + "/devices/sim", devRoot()}) {
        fs::create_directories(d, ec);
        if (ec) {
            why = "cannot make " + d + ": " + ec.message();
            return false;
        }
    }
    return true;
}

bool SysfsTree::add(int hidraw, const NodeIdentity& id, std::string& why) const {
    const fs::path devices = sysfsRoot() + "/devices";
    const fs::path phys = devices / physicalDir(id);
    const fs::path hid = devices / hidDir(id);
    const std::string node = "hidraw" + std::to_string(hidraw);
    const fs::path raw = hid / "hidraw" / node;
    std::error_code ec;
    fs::create_directories(raw, ec);
    if (ec) {
        why = "cannot make " + raw.string() + ": " + ec.message();
        return false;
    }
    if (id.bus == "usb") {
        if (!write(phys / "idVendor", hex(id.vid, 4, false) + "\n", why) ||
            !write(phys / "idProduct", hex(id.pid, 4, false) + "\n", why) ||
            !write(phys / "bcdDevice", hex(id.release, 4, false) + "\n", why) ||
            !write(phys / "product", id.name + "\n", why) ||
            (!id.serial.empty() && !write(phys / "serial", id.serial + "\n", why)) ||
            !write(hid.parent_path() / "bInterfaceNumber", "00\n", why) ||
            !write(hid.parent_path() / "bInterfaceClass", "03\n", why)) {
            return false;
        }
    }
    const bool bt = overBluetooth(id);
    const std::string phys_text =
        bt ? "00:1a:7d:da:71:13" : "usb-sim-1-" + std::to_string(id.port) + "/input0";
    const std::string uniq = bt ? address(id) : id.serial;
    const std::string uevent = "DRIVER=hid-generic\nHID_ID=" + hex(busOf(id), 4) + ":" +
                               hex(id.vid, 8) + ":" + hex(id.pid, 8) + "\nHID_NAME=" + id.name +
                               "\nHID_PHYS=" + phys_text + "\nHID_UNIQ=" + uniq +
                               "\nMODALIAS=hid:b" + hex(busOf(id), 4) + "g0001v" + hex(id.vid, 8) +
                               "p" + hex(id.pid, 8) + "\n";
    const std::string descriptor(id.descriptor.begin(), id.descriptor.end());
    if (!write(hid / "uevent", uevent, why) || !write(hid / "report_descriptor", descriptor, why) ||
        !write(raw / "uevent",
               "MAJOR=" + std::to_string(kHidrawMajor) + "\nMINOR=" + std::to_string(hidraw) +
                   "\nDEVNAME=" + node + "\n",
               why) ||
        !write(raw / "dev", std::to_string(kHidrawMajor) + ":" + std::to_string(hidraw) + "\n",
               why)) {
        return false;
    }
    // As in sysfs, the node's "device" is the HID device two levels up.
    fs::create_directory_symlink("../../../" + hid.filename().string(), raw / "device", ec);
    if (ec) {
        why = "cannot link " + (raw / "device").string() + ": " + ec.message();
        return false;
    }
    return true;
}

bool SysfsTree::publish(int hidraw, const NodeIdentity& id, std::string& why) const {
    const std::string node = "hidraw" + std::to_string(hidraw);
    std::error_code ec;
    fs::create_directory_symlink("../../devices/" + hidDir(id) + "/hidraw/" + node,
                                 sysfsRoot() + "/class/hidraw/" + node, ec);
    if (ec) why = "cannot publish " + node + ": " + ec.message();
    return !ec;
}

void SysfsTree::remove(int hidraw, const NodeIdentity& id) const {
    std::error_code ec;
    fs::remove(sysfsRoot() + "/class/hidraw/hidraw" + std::to_string(hidraw), ec);
    // uhid stays for the other Low Energy devices.
    const std::string gone = id.bus == "ble" ? hidDir(id) : physicalDir(id);
    fs::remove_all(fs::path(sysfsRoot() + "/devices") / gone, ec);
}

}  // namespace devio_sim
