#include "Linux/LinuxSystem.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "Base/ClassLog.h"
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
// The maker's USB vendor id: its nodes are the ones worth a warning when
// they cannot be opened.
constexpr std::uint16_t kMakerVendorId = 0x2E5A;

std::uint32_t hidrawNumber(const std::string& node) {
    return static_cast<std::uint32_t>(std::stoul(node.substr(6)));
}

std::map<std::string, int> countClaims(const std::map<std::string, std::string>& where) {
    std::map<std::string, int> count;
    for (const auto& [node, location] : where) {
        if (!location.empty()) ++count[location];
    }
    return count;
}

// FNV-1a, eight hexadecimal digits: short, and the same on every machine.
std::string digestOf(const std::vector<std::uint8_t>& bytes) {
    std::uint32_t hash = 2166136261u;
    for (std::uint8_t b : bytes) hash = (hash ^ b) * 16777619u;
    char text[9];
    std::snprintf(text, sizeof text, "%08x", hash);
    return text;
}

}  // namespace

class LinuxSystem::Use {
public:
    Use(LinuxSystem& system, PlatformHandle handle) : system_(system), handle_(handle) {
        std::lock_guard<std::mutex> lock(system_.mutex_);
        const auto it = system_.open_.find(handle);
        if (it == system_.open_.end() || it->second.retired) return;
        ++it->second.users;
        fd_ = it->second.fd;
    }
    ~Use() {
        if (fd_ < 0) return;
        std::lock_guard<std::mutex> lock(system_.mutex_);
        const auto it = system_.open_.find(handle_);
        if (--it->second.users > 0 || !it->second.retired) return;
        // The last call working on a closed handle lets its number go.
        ::close(it->second.fd);
        system_.open_.erase(it);
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    int fd() const { return fd_; }
    // True once the handle was closed while this call used it.
    bool closedMeanwhile() const {
        std::lock_guard<std::mutex> lock(system_.mutex_);
        return system_.open_.at(handle_).retired;
    }
    void setReaderStop(int stop) {
        std::lock_guard<std::mutex> lock(system_.mutex_);
        system_.open_.at(handle_).reader_stop = stop;
    }

private:
    LinuxSystem& system_;
    PlatformHandle handle_;
    int fd_ = -1;
};

LinuxSystem::LinuxSystem(std::string sysfs_root, std::string dev_root)
    : sysfs_(std::move(sysfs_root)), dev_root_(std::move(dev_root)) {
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0) {
        ::close(pair[1]);
        placeholder_ = pair[0];
    }
}

LinuxSystem::~LinuxSystem() {
    for (const auto& [handle, entry] : open_) ::close(entry.fd);
    if (placeholder_ >= 0) ::close(placeholder_);
}

std::string LinuxSystem::hid_interface_class() {
    return kHidClass;
}

std::map<std::string, std::string> LinuxSystem::namesOf(const std::vector<std::string>& nodes) {
    std::map<std::string, std::string> where;
    for (const std::string& node : nodes) where[node] = sysfs_.location(node);
    // Several nodes of one device (a Low Energy device with several HID
    // services) share its location; each keeps its report descriptor across
    // reconnects, and that tells them apart.
    auto claims = countClaims(where);
    for (auto& [node, location] : where) {
        std::vector<std::uint8_t> bytes;
        int err = 0;
        if (!location.empty() && claims[location] > 1 && sysfs_.readDescriptor(node, bytes, err))
            location += "-" + digestOf(bytes);
    }
    // Two devices never share a path: a location that two nodes still claim
    // names neither of them.
    claims = countClaims(where);
    for (auto& [node, location] : where)
        location =
            location.empty() || claims[location] > 1 ? node : linux_hid::locationName(location);
    return where;
}

bool LinuxSystem::bluetoothIdentity(const std::string& path, std::uint64_t& address,
                                    bool& low_energy) {
    const auto parsed = linux_hid::parseInterfacePath(dev_root_, path);
    const std::string node = parsed ? resolve(*parsed) : std::string();
    const auto found = node.empty() ? std::nullopt : sysfs_.bluetoothNode(node);
    if (found) {
        address = found->address;
        low_energy = found->low_energy;
        return true;
    }
    // A paired device that is switched off has no node, and its path still
    // names its address; which bearer it uses only the Bluetooth stack knows.
    constexpr std::size_t kAddressChars = 17;
    if (!parsed || !node.empty() || parsed->location.rfind("bt-", 0) != 0 ||
        parsed->location.size() < 3 + kAddressChars) {
        return false;
    }
    low_energy = false;
    return linux_hid::parseBluetoothAddress(
        parsed->location.substr(parsed->location.size() - kAddressChars), address);
}

std::vector<HidInterface> LinuxSystem::interfacesOf(const std::string& node) {
    int err = 0;
    const auto names = namesOf(sysfs_.listNodes(err));
    const auto named = names.find(node);
    if (named == names.end()) return {};
    return interfacesNamed(node, named->second);
}

std::map<std::string, std::vector<HidInterface>> LinuxSystem::interfacesByNode(int& sys_error) {
    std::map<std::string, std::vector<HidInterface>> out;
    // Names depend on every node's location, so they are worked out once for
    // the whole class: a machine of n devices costs n reads, not n squared.
    for (const auto& [node, name] : namesOf(sysfs_.listNodes(sys_error)))
        out[node] = interfacesNamed(node, name);
    return out;
}

std::vector<HidInterface> LinuxSystem::interfacesNamed(const std::string& node,
                                                       const std::string& name) {
    int err = 0;
    std::vector<std::uint8_t> bytes;
    hid::ReportDescriptor rd;
    std::string why;
    std::size_t collections = 1;
    // A node whose descriptor cannot be read or parsed is still listed, once:
    // opening it is what refuses it, with the reason.
    if (sysfs_.readDescriptor(node, bytes, err) && hid::parseReportDescriptor(bytes, rd, why)) {
        collections = std::max<std::size_t>(1, rd.collections.size());
    }
    std::vector<HidInterface> out;
    for (std::size_t k = 0; k < collections; ++k) {
        const auto which = collections > 1 ? std::optional<std::size_t>(k) : std::nullopt;
        out.push_back({linux_hid::formatInterfacePath(dev_root_, name, which), hidrawNumber(node)});
    }
    return out;
}

std::vector<HidInterface> LinuxSystem::enumerate_interfaces(const std::string& interface_class) {
    if (interface_class != kHidClass) return {};
    int err = 0;
    const auto found = interfacesByNode(err);
    if (err != 0)
        throw DevioException(SetupApiFailed, "hidraw class unreadable",
                             static_cast<std::uint32_t>(err));
    std::vector<HidInterface> out;
    for (const auto& [node, interfaces] : found)
        out.insert(out.end(), interfaces.begin(), interfaces.end());
    return out;
}

std::string LinuxSystem::resolve(const linux_hid::InterfacePath& path) {
    if (path.location.empty()) return path.node;
    const std::string wanted = linux_hid::locationName(path.location);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = located_.find(wanted);
        // The node remembered is checked again: it may be another device's
        // by now.
        if (it != located_.end() && sysfs_.location(it->second) == path.location) return it->second;
    }
    // One walk names every node, so the devices opened after this one find
    // theirs without walking again.
    int err = 0;
    std::string found;
    const auto names = namesOf(sysfs_.listNodes(err));
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [node, name] : names) {
        if (name == node) continue;  // no location of its own
        located_[name] = node;
        if (name == wanted) found = node;
    }
    return found;
}

// A normal user cannot open hidraw nodes unless a udev rule grants it, and
// devices() is then silently empty; one warning says why.
void LinuxSystem::warnIfDenied(const std::string& node, int err) {
    static std::atomic<bool> warned{false};
    if (err != EACCES && err != EPERM) return;
    const auto ev = sysfs_.readUevent(node);
    if (!ev || !ev->has_id || ev->vendor != kMakerVendorId || warned.exchange(true)) return;
    DEVIO_LOG("LinuxSystem", 1, "open_interface",
              "-hid- %s/%s of a Vantrel device cannot be opened: permission denied; the "
              "udev rule that grants access is not installed",
              dev_root_.c_str(), node.c_str());
}

PlatformHandle LinuxSystem::addHandle(int fd, std::optional<OpenInterface> iface) {
    std::lock_guard<std::mutex> lock(mutex_);
    // The serial keeps a reused descriptor number from matching an old handle.
    const auto handle = static_cast<PlatformHandle>(
        (static_cast<std::uint64_t>(next_serial_++) << 32) | static_cast<std::uint32_t>(fd));
    if (next_serial_ > 0x7FFFFFFF) next_serial_ = 1;
    open_[handle] = Entry{fd, std::move(iface), 0, false, -1};
    return handle;
}

PlatformHandle LinuxSystem::open_interface(const std::string& path, std::uint32_t& sys_error) {
    const auto parsed = linux_hid::parseInterfacePath(dev_root_, path);
    const std::string node = parsed ? resolve(*parsed) : std::string();
    if (node.empty()) {
        sys_error = ENOENT;
        return kInvalidHandle;
    }
    int err = 0;
    const int fd = linux_hid::openNode(dev_root_ + "/" + node, err);
    if (fd < 0) {
        warnIfDenied(node, err);
        sys_error = static_cast<std::uint32_t>(err);
        return kInvalidHandle;
    }
    OpenInterface entry{node, parsed->collection, {}};
    if (parsed->collection) {
        std::vector<std::uint8_t> bytes;
        hid::ReportDescriptor rd;
        std::string why;
        if (loadDescriptor(node, fd, bytes, err) && hid::parseReportDescriptor(bytes, rd, why) &&
            *parsed->collection < rd.collections.size()) {
            entry.input_ids =
                hid::summarizeCollection(rd.collections[*parsed->collection]).input.report_ids;
        }
    }
    return addHandle(fd, std::move(entry));
}

// A handle in use elsewhere is retired rather than closed: its number now
// holds the placeholder, and a read waiting on it is woken through its stop
// event (closing a descriptor does not wake poll). The last user closes it.
void LinuxSystem::close_handle(PlatformHandle handle) {
    if (handle == kInvalidHandle) return;
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = open_.find(handle);
    if (it == open_.end() || it->second.retired) return;
    Entry& entry = it->second;
    if (entry.users == 0) {
        ::close(entry.fd);
        open_.erase(it);
        return;
    }
    if (placeholder_ >= 0) ::dup2(placeholder_, entry.fd);
    entry.retired = true;
    if (entry.reader_stop >= 0) linux_hid::signalStopEvent(entry.reader_stop);
}

std::string LinuxSystem::nodeOfHandle(PlatformHandle handle) {
    const auto entry = lookup(handle);
    return entry ? entry->node : std::string();
}

std::optional<LinuxSystem::OpenInterface> LinuxSystem::lookup(PlatformHandle handle) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = open_.find(handle);
    if (it == open_.end() || it->second.retired || !it->second.iface) return std::nullopt;
    return it->second.iface;
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
        int err = EBADF;
        Use use(*this, handle);
        if (use.fd() < 0 ||
            !linux_hid::queryRawInfo(use.fd(), bus, out.vendor_id, out.product_id, err)) {
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
    int err = EBADF;
    Use use(*this, handle);
    if (use.fd() < 0 || !loadDescriptor(entry->node, use.fd(), bytes, err)) {
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
    if (fd < 0) {
        sys_error = static_cast<std::uint32_t>(err);
        return kInvalidHandle;
    }
    return addHandle(fd, std::nullopt);
}

bool LinuxSystem::set_event(PlatformHandle event) {
    Use use(*this, event);
    return use.fd() >= 0 && linux_hid::signalStopEvent(use.fd());
}
bool LinuxSystem::reset_event(PlatformHandle event) {
    Use use(*this, event);
    return use.fd() >= 0 && linux_hid::resetStopEvent(use.fd());
}

ReadOutcome LinuxSystem::read_report(PlatformHandle handle, PlatformHandle stop_event,
                                     std::vector<Byte>& buffer, std::uint32_t& sys_error) {
    const auto entry = lookup(handle);
    const std::vector<std::uint8_t> ids = entry ? entry->input_ids : std::vector<std::uint8_t>{};
    Use stop(*this, stop_event);
    Use node(*this, handle);
    // A handle closed before this read began has nothing left to read: the
    // reader stops as if told to.
    if (stop.fd() < 0 || node.fd() < 0) return ReadOutcome::Stopped;
    node.setReaderStop(stop.fd());
    for (;;) {
        std::size_t got = 0;
        int err = 0;
        const auto r = linux_hid::readNode(node.fd(), stop.fd(), buffer, got, err);
        // Whatever woke the read, a handle closed meanwhile only holds the
        // placeholder now: the read fails as one aborted by the close, and
        // the next finds the handle gone.
        if (node.closedMeanwhile()) {
            sys_error = ECANCELED;
            return ReadOutcome::Failed;
        }
        switch (r) {
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
    Use use(*this, handle);
    if (use.fd() < 0) {
        sys_error = EBADF;
        return WriteOutcome::Failed;
    }
    int err = 0;
    const auto r = linux_hid::writeNode(use.fd(), report, timeout_ms, err);
    sys_error = static_cast<std::uint32_t>(err);
    switch (r) {
        case linux_hid::NodeWrite::Done:
            return WriteOutcome::Done;
        case linux_hid::NodeWrite::TimedOut:
            return WriteOutcome::TimedOut;
        case linux_hid::NodeWrite::GeneralFailure:
            return WriteOutcome::GeneralFailure;
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
