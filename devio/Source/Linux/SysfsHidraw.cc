#include "Linux/SysfsHidraw.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <sstream>

#include "Hid/HidLimits.h"

namespace devio::linux_hid {

namespace {

// How far above the HID device its USB device may sit (USB interface, USB
// device).
constexpr int kMaxAncestorSteps = 2;

bool parseHex(const std::string& text, std::uint32_t& out) {
    if (text.empty() || text.size() > 8) return false;
    std::uint32_t v = 0;
    for (char c : text) {
        const int d = std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
                      : (c >= 'a' && c <= 'f')                    ? c - 'a' + 10
                      : (c >= 'A' && c <= 'F')                    ? c - 'A' + 10
                                                                  : -1;
        if (d < 0) return false;
        v = (v << 4) | static_cast<std::uint32_t>(d);
    }
    out = v;
    return true;
}

// HID_ID is bus:vendor:product in hexadecimal, 4:8:8 digits as the kernel
// prints it.
bool parseHidId(const std::string& value, Uevent& ev) {
    const auto c1 = value.find(':');
    const auto c2 = c1 == std::string::npos ? c1 : value.find(':', c1 + 1);
    if (c2 == std::string::npos) return false;
    std::uint32_t bus = 0, vid = 0, pid = 0;
    if (!parseHex(value.substr(0, c1), bus) || !parseHex(value.substr(c1 + 1, c2 - c1 - 1), vid) ||
        !parseHex(value.substr(c2 + 1), pid) || vid > 0xFFFF || pid > 0xFFFF) {
        return false;
    }
    ev.bus = bus;
    ev.vendor = static_cast<std::uint16_t>(vid);
    ev.product = static_cast<std::uint16_t>(pid);
    return true;
}

std::string realPath(const std::string& path) {
    std::unique_ptr<char, decltype(&std::free)> p(::realpath(path.c_str(), nullptr), &std::free);
    return p ? std::string(p.get()) : std::string();
}

std::string trimLine(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) s.pop_back();
    return s;
}

}  // namespace

std::string toLower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

Uevent parseUevent(const std::string& text) {
    Uevent ev;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        const auto eq = line.find('=');
        if (eq == std::string::npos) continue;
        const std::string key = line.substr(0, eq);
        const std::string value = trimLine(line.substr(eq + 1));
        if (key == "HID_ID") {
            ev.has_id = parseHidId(value, ev);
        } else if (key == "HID_NAME") {
            ev.name = value;
        } else if (key == "HID_PHYS") {
            ev.phys = value;
        } else if (key == "HID_UNIQ") {
            ev.uniq = value;
        }
    }
    return ev;
}

bool readSmallFile(const std::string& path, std::string& out, int& sys_error, std::size_t limit) {
    out.clear();
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        sys_error = errno;
        return false;
    }
    char buf[4096];
    for (;;) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            sys_error = errno;
            ::close(fd);
            return false;
        }
        if (n == 0) break;
        const std::size_t take =
            std::min<std::size_t>(static_cast<std::size_t>(n), limit - out.size());
        out.append(buf, take);
        if (out.size() >= limit) break;
    }
    ::close(fd);
    return true;
}

std::vector<std::string> SysfsHidraw::listNodes(int& sys_error) const {
    std::vector<std::pair<unsigned long, std::string>> found;
    DIR* dir = ::opendir((root_ + "/class/hidraw").c_str());
    if (dir == nullptr) {
        sys_error = errno == ENOENT ? 0 : errno;
        return {};
    }
    while (const dirent* e = ::readdir(dir)) {
        const std::string name = e->d_name;
        if (name.size() <= 6 || name.compare(0, 6, "hidraw") != 0) continue;
        const std::string digits = name.substr(6);
        if (digits.size() > 9 || !std::all_of(digits.begin(), digits.end(),
                                              [](char c) { return c >= '0' && c <= '9'; })) {
            continue;
        }
        found.emplace_back(std::stoul(digits), name);
    }
    ::closedir(dir);
    std::sort(found.begin(), found.end());
    std::vector<std::string> names;
    for (auto& f : found) names.push_back(std::move(f.second));
    sys_error = 0;
    return names;
}

std::optional<Uevent> SysfsHidraw::readUevent(const std::string& node) const {
    std::string text;
    int err = 0;
    if (!readSmallFile(nodeDir(node) + "/device/uevent", text, err)) return std::nullopt;
    return parseUevent(text);
}

bool SysfsHidraw::readDescriptor(const std::string& node, std::vector<std::uint8_t>& out,
                                 int& sys_error) const {
    std::string raw;
    // One byte more than the ceiling, so that an oversized file is seen as such
    // by the parser instead of being cut to a plausible length.
    if (!readSmallFile(nodeDir(node) + "/device/report_descriptor", raw, sys_error,
                       hid::kMaxDescriptorBytes + 1)) {
        return false;
    }
    out.assign(raw.begin(), raw.end());
    return true;
}

std::string SysfsHidraw::deviceDirectory(const std::string& node) const {
    return realPath(nodeDir(node) + "/device");
}

// The USB device is the first directory above the HID device that carries
// idVendor: going further would reach a hub, whose name is not the
// device's.
std::string SysfsHidraw::usbDeviceAbove(const std::string& node) const {
    std::string dir = deviceDirectory(node);
    const std::string rootReal = realPath(root_);
    for (int step = 0; step < kMaxAncestorSteps && !dir.empty(); ++step) {
        const auto slash = dir.rfind('/');
        if (slash == std::string::npos || slash == 0) break;
        dir.resize(slash);
        // Never look outside the configured tree.
        if (dir.size() <= rootReal.size()) break;
        if (::access((dir + "/idVendor").c_str(), F_OK) == 0) return dir;
    }
    return {};
}

std::string SysfsHidraw::productName(const std::string& node) const {
    const std::string usb = usbDeviceAbove(node);
    std::string text;
    int err = 0;
    if (!usb.empty()) return readSmallFile(usb + "/product", text, err, 1024) ? trimLine(text) : "";
    const auto ev = readUevent(node);
    return ev ? ev->name : std::string();
}

std::uint16_t SysfsHidraw::version(const std::string& node) const {
    const std::string usb = usbDeviceAbove(node);
    std::string text;
    int err = 0;
    std::uint32_t v = 0;
    if (!usb.empty() && readSmallFile(usb + "/bcdDevice", text, err, 64) &&
        parseHex(trimLine(text), v) && v <= 0xFFFF) {
        return static_cast<std::uint16_t>(v);
    }
    return 0;
}

std::string SysfsHidraw::location(const std::string& node) const {
    const auto ev = readUevent(node);
    if (!ev || ev->phys.empty()) return {};
    std::string where = ev->phys;
    if (ev->bus == kBusBluetooth) {
        if (ev->uniq.empty()) return {};
        where = "bt-" + ev->phys + "-" + ev->uniq;
    }
    // '#' marks the collection in a path.
    std::replace(where.begin(), where.end(), '#', '_');
    return toLower(where);
}

bool parseBluetoothAddress(const std::string& text, std::uint64_t& out) {
    constexpr std::size_t kAddressChars = 17;
    if (text.size() != kAddressChars) return false;
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (i % 3 == 2) {
            if (text[i] != ':') return false;
            continue;
        }
        std::uint32_t digit = 0;
        if (!parseHex(text.substr(i, 1), digit)) return false;
        value = (value << 4) | digit;
    }
    out = value;
    return true;
}

std::optional<BluetoothNode> SysfsHidraw::bluetoothNode(const std::string& node) const {
    const auto ev = readUevent(node);
    BluetoothNode out;
    if (!ev || !ev->has_id || ev->bus != kBusBluetooth ||
        !parseBluetoothAddress(ev->uniq, out.address)) {
        return std::nullopt;
    }
    out.low_energy = deviceDirectory(node).find("/virtual/misc/uhid/") != std::string::npos;
    return out;
}

std::string resolveCaseInsensitive(const std::string& path) {
    if (path.empty() || path[0] != '/') return {};
    if (::access(path.c_str(), F_OK) == 0) return path;
    std::string resolved;
    std::size_t pos = 1;
    while (pos <= path.size()) {
        const std::size_t next = std::min(path.find('/', pos), path.size());
        const std::string part = path.substr(pos, next - pos);
        pos = next + 1;
        if (part.empty()) continue;
        const std::string candidate = resolved + "/" + part;
        if (::access(candidate.c_str(), F_OK) == 0) {
            resolved = candidate;
            continue;
        }
        DIR* dir = ::opendir(resolved.empty() ? "/" : resolved.c_str());
        if (dir == nullptr) return {};
        std::string match;
        const std::string wanted = toLower(part);
        while (const dirent* e = ::readdir(dir)) {
            if (toLower(e->d_name) == wanted) {
                match = e->d_name;
                break;
            }
        }
        ::closedir(dir);
        if (match.empty()) return {};
        resolved += "/" + match;
    }
    return resolved.empty() ? "/" : resolved;
}

}  // namespace devio::linux_hid
