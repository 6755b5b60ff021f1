#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace devio::linux_hid {

// The bus number of Bluetooth in HID_ID.
inline constexpr std::uint32_t kBusBluetooth = 0x0005;

// What the kernel tells about a HID device in its uevent file.
struct Uevent {
    bool has_id = false;
    std::uint32_t bus = 0;
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::string name;  // HID_NAME
    std::string phys;  // HID_PHYS
    std::string uniq;  // HID_UNIQ
};

// Parses the text of a uevent file. Lines that are not KEY=VALUE and keys
// other than the HID ones are ignored; a malformed HID_ID leaves has_id false.
Uevent parseUevent(const std::string& text);

// A Bluetooth device behind a node.
struct BluetoothNode {
    std::uint64_t address = 0;  // from HID_UNIQ
    // BlueZ makes the HID devices of Low Energy devices through uhid; those
    // of classic devices hang below the radio's connection.
    bool low_energy = false;
};

// "aa:bb:cc:dd:ee:ff" in either case; false for anything else.
bool parseBluetoothAddress(const std::string& text, std::uint64_t& out);

// Reads the hidraw class of a sysfs tree. The root is configurable so that a
// prepared tree can stand in for /sys. Stateless apart from the root: any
// thread may call.
class SysfsHidraw {
public:
    explicit SysfsHidraw(std::string sysfs_root) : root_(std::move(sysfs_root)) {}

    // Node names ("hidraw0", ...) in numeric order. Throws nothing; a missing
    // class directory (no hidraw support loaded) is an empty machine. errno is
    // left in `sys_error` when the directory exists but cannot be read.
    std::vector<std::string> listNodes(int& sys_error) const;

    std::optional<Uevent> readUevent(const std::string& node) const;
    bool readDescriptor(const std::string& node, std::vector<std::uint8_t>& out,
                        int& sys_error) const;

    // The product string as USB gives it (the `product` attribute of the USB
    // device above the interface; empty when that device has none), or
    // HID_NAME when no USB device lies above.
    std::string productName(const std::string& node) const;
    // The release number (bcdDevice) of the USB device above, 0 if none.
    std::uint16_t version(const std::string& node) const;
    // Where the device behind a node sits, which stays while it stays in the
    // same port, across replugs and reboots: HID_PHYS (for USB the
    // controller, the port path and the interface), and for Bluetooth, whose
    // HID_PHYS names only the adapter, the device's address from HID_UNIQ.
    // Lower case, without '#'; empty when the kernel tells none.
    std::string location(const std::string& node) const;
    // The Bluetooth device behind a node; nothing for a node of another bus
    // or without an address.
    std::optional<BluetoothNode> bluetoothNode(const std::string& node) const;

    // The sysfs directory of the HID device behind a node, resolved through
    // symbolic links; empty if the node does not exist.
    std::string deviceDirectory(const std::string& node) const;
    const std::string& root() const { return root_; }

private:
    std::string nodeDir(const std::string& node) const { return root_ + "/class/hidraw/" + node; }
    // The sysfs directory of the USB device above a node's HID device, or
    // empty when none lies above.
    std::string usbDeviceAbove(const std::string& node) const;

    std::string root_;
};

// Reads a small text or binary attribute file whole, at most `limit` bytes.
bool readSmallFile(const std::string& path, std::string& out, int& sys_error,
                   std::size_t limit = 65536);

// Resolves a path that may have been lower-cased on the way (instance ids are
// kept in lower case) against the real file system, component by component.
// Returns the real path, or empty when nothing matches.
std::string resolveCaseInsensitive(const std::string& path);

std::string toLower(std::string s);

}  // namespace devio::linux_hid
