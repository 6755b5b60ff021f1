#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Linux/InterfacePath.h"
#include "Linux/SysfsHidraw.h"
#include "Windows/IWin32System.h"

namespace devio {

// The hidraw binding: IWin32System over sysfs and device nodes. The roots
// default to /sys and /dev and are given otherwise by tests and by the
// simulated machine.
//
// Handles are table entries, never bare descriptors: a handle closed while
// another thread reads or writes through it keeps its descriptor number
// taken (by a hung-up placeholder) until that thread has left, so that the
// number cannot be handed to the next open and its reports read as this
// device's.
//
// Any thread may call. `mutex_` guards the table of handles and the location
// cache and is held only for lookups, never across a read, a write or a
// wait.
class LinuxSystem : public IWin32System {
public:
    LinuxSystem(std::string sysfs_root, std::string dev_root);
    ~LinuxSystem() override;

    std::string hid_interface_class() override;
    std::vector<HidInterface> enumerate_interfaces(const std::string& interface_class) override;

    PlatformHandle open_interface(const std::string& path, std::uint32_t& sys_error) override;
    void close_handle(PlatformHandle handle) override;

    bool get_attributes(PlatformHandle handle, HidAttributes& out,
                        std::uint32_t& sys_error) override;
    std::shared_ptr<const HidPreparsedData> get_preparsed_data(PlatformHandle handle,
                                                               std::uint32_t& sys_error) override;
    bool get_caps(const HidPreparsedData& data, hid::CollectionCaps& out,
                  std::uint32_t& sys_error) override;
    int get_product_string(PlatformHandle handle, std::string& out,
                           std::uint32_t& sys_error) override;

    std::string setupdi_instance_from_path(const std::string& path) override;
    std::string setupdi_parent(const std::string& instance) override;
    std::string setupdi_instance_from_devnode(std::uint32_t devnode) override;
    std::string setupdi_path_from_instance(const std::string& instance,
                                           const std::string& interface_class) override;

    PlatformHandle create_event(std::uint32_t& sys_error) override;
    bool set_event(PlatformHandle event) override;
    bool reset_event(PlatformHandle event) override;

    ReadOutcome read_report(PlatformHandle handle, PlatformHandle stop_event,
                            std::vector<Byte>& buffer, std::uint32_t& sys_error) override;
    WriteOutcome write_report(PlatformHandle handle, const std::vector<Byte>& report,
                              std::uint32_t timeout_ms, std::uint32_t& sys_error) override;

    // For the device-change window: the interfaces of one node as the bus
    // names them, and the node behind an open handle (empty if none).
    std::vector<HidInterface> interfacesOf(const std::string& node);
    // Every node's interfaces, named in one walk of the class.
    std::map<std::string, std::vector<HidInterface>> interfacesByNode(int& sys_error);
    std::string nodeOfHandle(PlatformHandle handle);
    // For the Bluetooth binding: the address of the Bluetooth device behind
    // a path (from HID_UNIQ), and whether it is a Low Energy device (its HID
    // device made by BlueZ through uhid). False for any other device.
    bool bluetoothIdentity(const std::string& path, std::uint64_t& address, bool& low_energy);
    const linux_hid::SysfsHidraw& sysfs() const { return sysfs_; }
    const std::string& devRoot() const { return dev_root_; }

private:
    // What an open handle stands for.
    struct OpenInterface {
        std::string node;
        std::optional<std::size_t> collection;
        // Input report ids of the collection, when the node carries several
        // collections: a read passes on only the reports of its own.
        std::vector<std::uint8_t> input_ids;
    };
    struct Entry {
        int fd = -1;
        std::optional<OpenInterface> iface;  // absent for a stop event
        int users = 0;                       // calls working on fd now
        bool retired = false;                // closed; fd holds the placeholder
        int reader_stop = -1;                // the stop event of a waiting read
    };
    // Holds a handle's descriptor for the length of one call.
    class Use;

    PlatformHandle addHandle(int fd, std::optional<OpenInterface> iface);
    std::optional<OpenInterface> lookup(PlatformHandle handle);
    bool loadDescriptor(const std::string& node, int fd, std::vector<std::uint8_t>& out,
                        int& sys_error);
    // The node that a path names now; empty if none.
    std::string resolve(const linux_hid::InterfacePath& path);
    // The name each node is given in paths: its location, or the node itself
    // where it has none or shares it with another node.
    std::map<std::string, std::string> namesOf(const std::vector<std::string>& nodes);
    std::vector<HidInterface> interfacesNamed(const std::string& node, const std::string& name);
    void warnIfDenied(const std::string& node, int err);

    linux_hid::SysfsHidraw sysfs_;
    std::string dev_root_;
    int placeholder_ = -1;  // a hung-up socket: reads end, writes fail
    std::mutex mutex_;
    std::map<PlatformHandle, Entry> open_;        // guarded by mutex_
    std::uint32_t next_serial_ = 1;               // guarded by mutex_
    std::map<std::string, std::string> located_;  // path name to node; guarded by mutex_
};

}  // namespace devio
