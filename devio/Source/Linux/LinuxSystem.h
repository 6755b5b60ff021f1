#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Linux/SysfsHidraw.h"
#include "Windows/IWin32System.h"

namespace devio {

// The hidraw binding: IWin32System over sysfs and device nodes. The roots
// default to /sys and /dev and are given otherwise by tests and by the
// simulated machine.
//
// Any thread may call. `mutex_` guards the table of open handles and is held
// only for lookups, never across a read, a write or a wait.
class LinuxSystem : public IWin32System {
public:
    LinuxSystem(std::string sysfs_root, std::string dev_root);

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

private:
    // What an open handle stands for.
    struct OpenInterface {
        std::string node;
        std::optional<std::size_t> collection;
        // Input report ids of the collection, when the node carries several
        // collections: a read passes on only the reports of its own.
        std::vector<std::uint8_t> input_ids;
    };

    std::optional<OpenInterface> lookup(PlatformHandle handle);
    bool loadDescriptor(const std::string& node, int fd, std::vector<std::uint8_t>& out,
                        int& sys_error);
    std::vector<HidInterface> interfacesOf(const std::string& node);

    linux_hid::SysfsHidraw sysfs_;
    std::string dev_root_;
    std::mutex mutex_;
    std::map<PlatformHandle, OpenInterface> open_;  // guarded by mutex_
};

}  // namespace devio
