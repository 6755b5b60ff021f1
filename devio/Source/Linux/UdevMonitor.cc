// Device changes of the real machine, as udev announces them once its rules
// have run (so a node announced is a node with its final permissions).

#include <libudev.h>
#include <poll.h>

#include <cerrno>
#include <cstring>

#include "Linux/ChangeSources.h"

namespace devio::linux_hid {

namespace {

class UdevMonitor : public IChangeSource {
public:
    UdevMonitor(udev* context, udev_monitor* monitor) : udev_(context), monitor_(monitor) {}
    ~UdevMonitor() override {
        udev_monitor_unref(monitor_);
        udev_unref(udev_);
    }

    int fd() const override { return udev_monitor_get_fd(monitor_); }
    short events() const override { return POLLIN; }

    void drain(std::vector<NodeEvent>& out) override {
        for (;;) {
            errno = 0;
            udev_device* device = udev_monitor_receive_device(monitor_);
            if (device == nullptr) {
                // The socket's buffer overflowed: events were dropped.
                if (errno == ENOBUFS) {
                    out.push_back({NodeEvent::Lost, {}, {}});
                    continue;
                }
                return;
            }
            const char* action = udev_device_get_action(device);
            const char* subsystem = udev_device_get_subsystem(device);
            const char* name = udev_device_get_sysname(device);
            const char* syspath = udev_device_get_syspath(device);
            if (action && subsystem && name) {
                const bool node = std::strcmp(subsystem, "hidraw") == 0;
                if (node && std::strcmp(action, "add") == 0) {
                    out.push_back({NodeEvent::Added, name, {}});
                } else if (node && std::strcmp(action, "remove") == 0) {
                    out.push_back({NodeEvent::Removed, name, {}});
                } else if (!node && std::strcmp(action, "unbind") == 0 && syspath) {
                    out.push_back({NodeEvent::Unbound, {}, syspath});
                }
            }
            udev_device_unref(device);
        }
    }

private:
    udev* udev_;
    udev_monitor* monitor_;
};

}  // namespace

std::unique_ptr<IChangeSource> openUdevMonitor(int& sys_error) {
    udev* context = udev_new();
    if (context == nullptr) {
        sys_error = errno ? errno : ENOMEM;
        return nullptr;
    }
    // libudev gives negative errno values or null with errno set.
    udev_monitor* monitor = udev_monitor_new_from_netlink(context, "udev");
    int r = monitor ? 0 : -(errno ? errno : EPERM);
    if (r == 0) r = udev_monitor_filter_add_match_subsystem_devtype(monitor, "hidraw", nullptr);
    if (r == 0) r = udev_monitor_filter_add_match_subsystem_devtype(monitor, "hid", nullptr);
    if (r == 0) r = udev_monitor_enable_receiving(monitor);
    if (r < 0) {
        sys_error = static_cast<int>(-r);
        if (monitor) udev_monitor_unref(monitor);
        udev_unref(context);
        return nullptr;
    }
    return std::make_unique<UdevMonitor>(context, monitor);
}

}  // namespace devio::linux_hid
