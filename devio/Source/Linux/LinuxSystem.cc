#include "Linux/LinuxSystem.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "Base/DevioException.h"
#include "Hid/ReportDescriptor.h"
#include "Linux/HidNode.h"
#include "Linux/InterfacePath.h"

namespace devio {

struct HidPreparsedData {
    hid::ReportDescriptor descriptor;
    std::size_t collection = 0;
};

namespace {
constexpr const char kHidClass[] = "hidraw";

std::uint32_t hidrawNumber(const std::string& node) {
    return static_cast<std::uint32_t>(std::stoul(node.substr(6)));
}
}  // namespace

LinuxSystem::LinuxSystem(std::string sysfs_root, std::string dev_root)
    : sysfs_(std::move(sysfs_root)), dev_root_(std::move(dev_root)) {}

std::string LinuxSystem::hid_interface_class() {
    return kHidClass;
}

std::vector<HidInterface> LinuxSystem::interfacesOf(const std::string& node) {
    std::vector<std::uint8_t> bytes;
    hid::ReportDescriptor rd;
    std::string why;
    int err = 0;
    std::size_t collections = 1;
    // A node whose descriptor cannot be read or parsed is still listed, once:
    // opening it is what refuses it, with the reason.
    if (sysfs_.readDescriptor(node, bytes, err) && hid::parseReportDescriptor(bytes, rd, why)) {
        collections = std::max<std::size_t>(1, rd.collections.size());
    }
    std::vector<HidInterface> out;
    for (std::size_t k = 0; k < collections; ++k) {
        const auto which = collections > 1 ? std::optional<std::size_t>(k) : std::nullopt;
        out.push_back({linux_hid::formatInterfacePath(dev_root_, node, which), hidrawNumber(node)});
    }
    return out;
}

std::vector<HidInterface> LinuxSystem::enumerate_interfaces(const std::string& interface_class) {
    if (interface_class != kHidClass) return {};
    int err = 0;
    const std::vector<std::string> nodes = sysfs_.listNodes(err);
    if (err != 0)
        throw DevioException(SetupApiFailed, "hidraw class unreadable",
                             static_cast<std::uint32_t>(err));
    std::vector<HidInterface> out;
    for (const std::string& node : nodes) {
        std::vector<HidInterface> more = interfacesOf(node);
        out.insert(out.end(), more.begin(), more.end());
    }
    return out;
}

PlatformHandle LinuxSystem::open_interface(const std::string& path, std::uint32_t& sys_error) {
    const auto parsed = linux_hid::parseInterfacePath(dev_root_, path);
    if (!parsed) {
        sys_error = ENOENT;
        return kInvalidHandle;
    }
    int err = 0;
    const int fd = linux_hid::openNode(dev_root_ + "/" + parsed->node, err);
    if (fd < 0) {
        sys_error = static_cast<std::uint32_t>(err);
        return kInvalidHandle;
    }
    OpenInterface entry{parsed->node, parsed->collection, {}};
    if (parsed->collection) {
        std::vector<std::uint8_t> bytes;
        hid::ReportDescriptor rd;
        std::string why;
        if (loadDescriptor(parsed->node, fd, bytes, err) &&
            hid::parseReportDescriptor(bytes, rd, why) &&
            *parsed->collection < rd.collections.size()) {
            entry.input_ids =
                hid::summarizeCollection(rd.collections[*parsed->collection]).input.report_ids;
        }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    open_[fd] = std::move(entry);
    return fd;
}

void LinuxSystem::close_handle(PlatformHandle handle) {
    if (handle == kInvalidHandle) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open_.erase(handle);
    }
    ::close(static_cast<int>(handle));
}

std::optional<LinuxSystem::OpenInterface> LinuxSystem::lookup(PlatformHandle handle) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = open_.find(handle);
    if (it == open_.end()) return std::nullopt;
    return it->second;
}

bool LinuxSystem::loadDescriptor(const std::string& node, int fd, std::vector<std::uint8_t>& out,
                                 int& sys_error) {
    return sysfs_.readDescriptor(node, out, sys_error) ||
           linux_hid::queryDescriptor(fd, out, sys_error);
}

bool LinuxSystem::get_attributes(PlatformHandle handle, HidAttributes& out,
                                 std::uint32_t& sys_error) {
    const auto entry = lookup(handle);
    if (!entry) {
        sys_error = EBADF;
        return false;
    }
    const auto ev = sysfs_.readUevent(entry->node);
    if (ev && ev->has_id) {
        out.vendor_id = ev->vendor;
        out.product_id = ev->product;
    } else {
        std::uint32_t bus = 0;
        int err = 0;
        if (!linux_hid::queryRawInfo(static_cast<int>(handle), bus, out.vendor_id, out.product_id,
                                     err)) {
            sys_error = static_cast<std::uint32_t>(err);
            return false;
        }
    }
    out.version = sysfs_.version(entry->node);
    return true;
}

std::shared_ptr<const HidPreparsedData> LinuxSystem::get_preparsed_data(PlatformHandle handle,
                                                                        std::uint32_t& sys_error) {
    const auto entry = lookup(handle);
    if (!entry) {
        sys_error = EBADF;
        return nullptr;
    }
    std::vector<std::uint8_t> bytes;
    int err = 0;
    if (!loadDescriptor(entry->node, static_cast<int>(handle), bytes, err)) {
        sys_error = static_cast<std::uint32_t>(err);
        return nullptr;
    }
    auto data = std::make_shared<HidPreparsedData>();
    std::string why;
    data->collection = entry->collection.value_or(0);
    if (!hid::parseReportDescriptor(bytes, data->descriptor, why) ||
        data->collection >= data->descriptor.collections.size()) {
        sys_error = EINVAL;
        return nullptr;
    }
    return data;
}

bool LinuxSystem::get_caps(const HidPreparsedData& data, hid::CollectionCaps& out,
                           std::uint32_t& sys_error) {
    if (data.collection >= data.descriptor.collections.size()) {
        sys_error = EINVAL;
        return false;
    }
    out = hid::summarizeCollection(data.descriptor.collections[data.collection]);
    return true;
}

int LinuxSystem::get_product_string(PlatformHandle handle, std::string& out,
                                    std::uint32_t& sys_error) {
    const auto entry = lookup(handle);
    if (!entry) {
        sys_error = EBADF;
        return -1;
    }
    out = sysfs_.productName(entry->node);
    return out.empty() ? 0 : 1;
}

PlatformHandle LinuxSystem::create_event(std::uint32_t& sys_error) {
    int err = 0;
    const int fd = linux_hid::makeStopEvent(err);
    if (fd < 0) sys_error = static_cast<std::uint32_t>(err);
    return fd < 0 ? kInvalidHandle : fd;
}

bool LinuxSystem::set_event(PlatformHandle event) {
    return linux_hid::signalStopEvent(static_cast<int>(event));
}
bool LinuxSystem::reset_event(PlatformHandle event) {
    return linux_hid::resetStopEvent(static_cast<int>(event));
}

ReadOutcome LinuxSystem::read_report(PlatformHandle handle, PlatformHandle stop_event,
                                     std::vector<Byte>& buffer, std::uint32_t& sys_error) {
    const auto entry = lookup(handle);
    const std::vector<std::uint8_t> ids = entry ? entry->input_ids : std::vector<std::uint8_t>{};
    for (;;) {
        std::size_t got = 0;
        int err = 0;
        switch (linux_hid::readNode(static_cast<int>(handle), static_cast<int>(stop_event), buffer,
                                    got, err)) {
            case linux_hid::NodeRead::Stopped:
                return ReadOutcome::Stopped;
            case linux_hid::NodeRead::Gone:
                sys_error = static_cast<std::uint32_t>(err);
                return ReadOutcome::Disconnected;
            case linux_hid::NodeRead::Failed:
                sys_error = static_cast<std::uint32_t>(err);
                return ReadOutcome::Failed;
            case linux_hid::NodeRead::Report:
                break;
        }
        // Another collection's report on a shared node is not ours to deliver.
        if (ids.empty() || std::find(ids.begin(), ids.end(), buffer[0]) != ids.end())
            return ReadOutcome::Report;
    }
}

WriteOutcome LinuxSystem::write_report(PlatformHandle handle, const std::vector<Byte>& report,
                                       std::uint32_t timeout_ms, std::uint32_t& sys_error) {
    int err = 0;
    const auto r = linux_hid::writeNode(static_cast<int>(handle), report, timeout_ms, err);
    sys_error = static_cast<std::uint32_t>(err);
    switch (r) {
        case linux_hid::NodeWrite::Done:
            return WriteOutcome::Done;
        case linux_hid::NodeWrite::TimedOut:
            return WriteOutcome::TimedOut;
        case linux_hid::NodeWrite::Failed:
            break;
    }
    return WriteOutcome::Failed;
}

std::shared_ptr<IWin32System> makePlatformSystem() {
    const char* sysfs = std::getenv("DEVIO_SYSFS_ROOT");
    const char* dev = std::getenv("DEVIO_DEV_ROOT");
    return std::make_shared<LinuxSystem>(sysfs && *sysfs ? sysfs : "/sys",
                                         dev && *dev ? dev : "/dev");
}

}  // namespace devio
