#pragma once

// A prepared machine for the hidraw binding: a sysfs tree in a temporary
// directory and one SOCK_SEQPACKET socket node per device, each served by a
// small in-test peer that records what it receives and sends what it is told.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Linux/LinuxSystem.h"
#include "Windows/Win32Bus.h"

namespace hidtest {

// The far side of one socket node. Accepts any number of connections, like a
// hidraw node that several programs open; every report it sends goes to all.
class Peer {
public:
    explicit Peer(const std::string& socket_path);
    ~Peer();

    void send(const std::vector<std::uint8_t>& report);
    void stopReading() { reading_ = false; }
    void closeConnections();  // what an unplugged device looks like
    std::vector<std::vector<std::uint8_t>> received();
    std::size_t connections();

private:
    void serve();

    int listen_fd_ = -1;
    int wake_fd_ = -1;
    std::atomic<bool> reading_{true};
    std::mutex mutex_;
    std::vector<int> conns_;                           // guarded by mutex_
    std::vector<std::vector<std::uint8_t>> received_;  // guarded by mutex_
    std::thread thread_;
};

struct NodeSpec {
    std::string uevent;                    // text of device/uevent; empty: no file
    std::vector<std::uint8_t> descriptor;  // device/report_descriptor
    bool has_descriptor = true;
    std::string product;  // USB product attribute; empty: none
    bool socket = true;   // make the socket node
};

inline std::string ueventFor(std::uint16_t vid, std::uint16_t pid,
                             const char* name = "Test Device") {
    char buf[160];
    std::snprintf(buf, sizeof buf,
                  "DRIVER=hid-generic\nHID_ID=0003:%08X:%08X\nHID_NAME=%s\nHID_PHYS=usb-0000:00:14."
                  "0-1/input2\nHID_UNIQ=\n",
                  vid, pid, name);
    return buf;
}

// The machine: <dir>/sys and <dir>/dev. Each node N gets a USB device
// directory <sys>/devices/pci0000:00/usbN/N-1 with an interface N-1:1.2, the
// HID device below it, and class/hidraw/hidrawN linking there, as on a real
// machine.
class SimTree {
public:
    SimTree();
    ~SimTree();

    Peer& addNode(unsigned n, const NodeSpec& node);
    void removeNodeFiles(unsigned n);
    const std::string& sysRoot() const { return sys_; }
    const std::string& devRoot() const { return dev_; }
    std::string devicePath(unsigned n) const;  // the interface path, lower case
    // The path enumeration gives a node alone on the machine: its location
    // (the HID_PHYS of ueventFor), lower case.
    std::string locatedPath() const;

private:
    std::string dir_, sys_, dev_;
    std::vector<std::unique_ptr<Peer>> peers_;
};

// A bus whose platform is the prepared machine.
class TreeBus : public devio::Win32Bus {
public:
    TreeBus(std::string sys, std::string dev) : sys_(std::move(sys)), dev_(std::move(dev)) {}
    std::shared_ptr<devio::IWin32System> makeWin32System() override {
        return std::make_shared<devio::LinuxSystem>(sys_, dev_);
    }

private:
    std::string sys_, dev_;
};

}  // namespace hidtest
