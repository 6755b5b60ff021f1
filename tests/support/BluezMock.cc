#include "BluezMock.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdarg>
#include <fstream>
#include <sstream>
#include <thread>

namespace bttest {

namespace {

constexpr const char kMockInterface[] = "org.bluez.Mock";
constexpr const char kHidOverGatt[] = "00001812-0000-1000-8000-00805f9b34fb";
// python3-dbusmock is Debian's, for Debian's interpreter.
constexpr const char kPython[] = "/usr/bin/python3";

void end(pid_t& pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
    pid = -1;
}

}  // namespace

PrivateSystemBus::PrivateSystemBus() {
    int out[2];
    if (::pipe(out) != 0) return;
    daemon_ = ::fork();
    if (daemon_ == 0) {
        ::dup2(out[1], 1);
        ::execl("/usr/bin/dbus-daemon", "dbus-daemon", "--session", "--nofork", "--print-address",
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(out[1]);
    char buf[512];
    std::string text;
    while (text.find('\n') == std::string::npos) {
        const ssize_t n = ::read(out[0], buf, sizeof buf);
        if (n <= 0) break;
        text.append(buf, static_cast<std::size_t>(n));
    }
    ::close(out[0]);
    if (text.find('\n') == std::string::npos) return;
    address_ = text.substr(0, text.find('\n'));
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
}

PrivateSystemBus::~PrivateSystemBus() {
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    end(daemon_);
}

BluezMock::BluezMock(const PrivateSystemBus& bus) {
    if (!bus.ok()) {
        why_ = "no private dbus-daemon";
        return;
    }
    mock_ = ::fork();
    if (mock_ == 0) {
        ::execl(kPython, "python3", "-m", "dbusmock", "--system", "--template", "bluez5",
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    if (sd_bus_new(&bus_) < 0 || sd_bus_set_address(bus_, bus.address().c_str()) < 0 ||
        sd_bus_set_bus_client(bus_, 1) < 0 || sd_bus_start(bus_) < 0) {
        why_ = "cannot reach the private bus";
        return;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (::waitpid(mock_, &status, WNOHANG) == mock_) {
            mock_ = -1;
            why_ = "python3-dbusmock did not start (is it installed?)";
            return;
        }
        sd_bus_message* reply = nullptr;
        int owned = 0;
        if (sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "NameHasOwner", nullptr, &reply, "s",
                               "org.bluez") >= 0) {
            sd_bus_message_read(reply, "b", &owned);
        }
        sd_bus_message_unref(reply);
        if (owned) {
            ok_ = true;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    why_ = "the BlueZ mock did not come up";
}

BluezMock::~BluezMock() {
    if (bus_) sd_bus_flush_close_unref(bus_);
    end(mock_);
}

void BluezMock::stop() {
    end(mock_);
}

std::string BluezMock::call(const char* path, const char* interface, const char* member,
                            const char* types, ...) {
    if (!bus_) return "no bus";
    sd_bus_error error = SD_BUS_ERROR_NULL;
    va_list args;
    va_start(args, types);
    const int r = sd_bus_call_methodv(bus_, "org.bluez", path, interface, member, &error, nullptr,
                                      types, args);
    va_end(args);
    std::string why;
    if (r < 0) why = std::string(member) + ": " + (error.message ? error.message : "failed");
    sd_bus_error_free(&error);
    return why;
}

std::string BluezMock::devicePath(const std::string& adapter, const std::string& address) {
    std::string name = address;
    for (char& c : name) c = c == ':' ? '_' : static_cast<char>(std::toupper(c));
    return "/org/bluez/" + adapter + "/dev_" + name;
}

std::string BluezMock::addAdapter(const std::string& name) {
    return call("/", kMockInterface, "AddAdapter", "ss", name.c_str(), "test machine");
}

std::string BluezMock::removeAdapter(const std::string& name) {
    return call("/", kMockInterface, "RemoveAdapter", "s", name.c_str());
}

std::string BluezMock::addDevice(const std::string& adapter, const std::string& address,
                                 const std::string& name) {
    return call("/", kMockInterface, "AddDevice", "sss", adapter.c_str(), address.c_str(),
                name.c_str());
}

std::string BluezMock::pairDevice(const std::string& adapter, const std::string& address) {
    return call("/", kMockInterface, "PairDevice", "ssi", adapter.c_str(), address.c_str(), 0x2540);
}

std::string BluezMock::connectDevice(const std::string& adapter, const std::string& address) {
    return call("/", kMockInterface, "ConnectDevice", "ss", adapter.c_str(), address.c_str());
}

std::string BluezMock::disconnectDevice(const std::string& adapter, const std::string& address) {
    return call("/", kMockInterface, "DisconnectDevice", "ss", adapter.c_str(), address.c_str());
}

std::string BluezMock::removeDevice(const std::string& adapter, const std::string& address) {
    const std::string path = devicePath(adapter, address);
    return call(("/org/bluez/" + adapter).c_str(), "org.bluez.Adapter1", "RemoveDevice", "o",
                path.c_str());
}

std::string BluezMock::makeLowEnergy(const std::string& adapter, const std::string& address) {
    const std::string path = devicePath(adapter, address);
    return call(path.c_str(), "org.freedesktop.DBus.Mock", "UpdateProperties", "sa{sv}",
                "org.bluez.Device1", 2, "AddressType", "s", "random", "UUIDs", "as", 1,
                kHidOverGatt);
}

std::string BluezMock::setPaired(const std::string& adapter, const std::string& address,
                                 bool paired) {
    const std::string path = devicePath(adapter, address);
    return call(path.c_str(), "org.freedesktop.DBus.Mock", "UpdateProperties", "sa{sv}",
                "org.bluez.Device1", 1, "Paired", "b", paired ? 1 : 0);
}

std::string BluezMock::loadGatt(const std::string& template_path) {
    return call("/", "org.freedesktop.DBus.Mock", "AddTemplate", "sa{sv}", template_path.c_str(),
                0);
}

std::string BluezMock::addGattDevice(const std::string& adapter, const std::string& address,
                                     const std::string& node, const std::string& characteristics,
                                     bool descriptor, std::uint16_t pid) {
    return call("/", kMockInterface, "AddGattDevice", "sssa{sv}", adapter.c_str(), address.c_str(),
                node.c_str(), 3, "characteristics", "s", characteristics.c_str(), "descriptor", "b",
                descriptor ? 1 : 0, "pid", "q", pid);
}

std::string BluezMock::removeGattDevice(const std::string& adapter, const std::string& address) {
    return call("/", kMockInterface, "RemoveGattDevice", "ss", adapter.c_str(), address.c_str());
}

std::string BluezMock::gattNotify(const std::string& characteristic,
                                  const std::vector<std::uint8_t>& value) {
    if (!bus_) return "no bus";
    sd_bus_message* m = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    int r =
        sd_bus_message_new_method_call(bus_, &m, "org.bluez", "/", kMockInterface, "GattNotify");
    if (r >= 0) r = sd_bus_message_append(m, "s", characteristic.c_str());
    if (r >= 0) r = sd_bus_message_append_array(m, 'y', value.data(), value.size());
    if (r >= 0) r = sd_bus_call(bus_, m, 0, &error, nullptr);
    std::string why;
    if (r < 0) why = std::string("GattNotify: ") + (error.message ? error.message : "failed");
    sd_bus_error_free(&error);
    sd_bus_message_unref(m);
    return why;
}

std::vector<BluezMock::GattWrite> BluezMock::gattWrites(const std::string& adapter,
                                                        const std::string& address) {
    std::vector<GattWrite> out;
    sd_bus_message* reply = nullptr;
    const std::string path = devicePath(adapter, address);
    if (!bus_ || sd_bus_call_method(bus_, "org.bluez", "/", kMockInterface, "GattWrites", nullptr,
                                    &reply, "s", path.c_str()) < 0) {
        return out;
    }
    if (sd_bus_message_enter_container(reply, 'a', "(oays)") > 0) {
        while (sd_bus_message_enter_container(reply, 'r', "oays") > 0) {
            GattWrite w;
            const char* text = nullptr;
            const void* data = nullptr;
            std::size_t size = 0;
            sd_bus_message_read(reply, "o", &text);
            w.characteristic = text ? text : "";
            sd_bus_message_read_array(reply, 'y', &data, &size);
            const auto* bytes = static_cast<const std::uint8_t*>(data);
            w.value.assign(bytes, bytes + size);
            sd_bus_message_read(reply, "s", &text);
            w.type = text ? text : "";
            sd_bus_message_exit_container(reply);
            out.push_back(std::move(w));
        }
    }
    sd_bus_message_unref(reply);
    return out;
}

std::string nodeAddress(const std::string& sysfs_root, int hidraw) {
    std::ifstream in(sysfs_root + "/class/hidraw/hidraw" + std::to_string(hidraw) +
                     "/device/uevent");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("HID_UNIQ=", 0) != 0) continue;
        std::string address = line.substr(9);
        for (char& c : address) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        return address;
    }
    return {};
}

}  // namespace bttest
