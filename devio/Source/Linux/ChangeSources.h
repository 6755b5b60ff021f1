#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace devio {
struct BluetoothChange;
}

namespace devio::linux_hid {

// What a source of device-change notifications tells the bus's window.
struct NodeEvent {
    enum Kind {
        Added,         // a hidraw node appeared: `node`
        Removed,       // a hidraw node went: `node`
        Unbound,       // the HID device at `syspath` lost its driver; its nodes go next
        Resumed,       // the machine woke from sleep
        Lost,          // the source lost events; what is there must be looked at again
        RadioAdded,    // a Bluetooth radio appeared: `node` is its path
        RadioRemoved,  // a Bluetooth radio went: `node`
        Bluetooth,     // the Bluetooth stack told of a remote device: `bluetooth`
        GattAdded,     // a device's vendor GATT service appeared: `node` is its path
        GattRemoved,   // it went: `node`
    };
    Kind kind;
    std::string node;
    std::string syspath;
    std::shared_ptr<const BluetoothChange> bluetooth = nullptr;
};

// One source, polled by the window thread among the others. Everything is
// called on that thread.
class IChangeSource {
public:
    virtual ~IChangeSource() = default;
    virtual int fd() const = 0;
    // poll events to wait for, and a time-out in milliseconds (-1: none).
    virtual short events() const = 0;
    virtual int timeoutMs() const { return -1; }
    // Reads what is ready without blocking and appends it to `out`.
    virtual void drain(std::vector<NodeEvent>& out) = 0;
};

// Nodes of a simulated machine: an inotify watch of <sysfs>/class/hidraw,
// where a machine publishes a node only once it is complete and withdraws
// it before anything else.
std::unique_ptr<IChangeSource> openTreeWatch(const std::string& sysfs_root, int& sys_error);
// Nodes of the real machine: a udev monitor of hidraw nodes, and of HID
// devices for the unbinding that precedes a node's removal.
std::unique_ptr<IChangeSource> openUdevMonitor(int& sys_error);
// Resume from logind's PrepareForSleep(false) on the system bus. Null, with
// the reason in `why`, where there is no system bus.
std::unique_ptr<IChangeSource> openLogindResume(std::string& why);
// Radios and remote devices of BlueZ on the system bus. Null, with the reason
// in `why` and an errno in `sys_error`, where there is no system bus or no
// BlueZ on it.
std::unique_ptr<IChangeSource> openBluezWatch(std::string& why, int& sys_error);

}  // namespace devio::linux_hid
