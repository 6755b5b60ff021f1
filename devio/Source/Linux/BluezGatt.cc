// The GATT side of the platform seam over BlueZ's GATT objects: discovery
// from one GetManagedObjects per open device, writes and notification
// switches as method calls on a connection of their own, and value changes
// heard on a second connection served by a thread of this object, which
// runs the callbacks.

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include "Linux/BluezObjects.h"
#include "Linux/SysfsHidraw.h"
#include "Windows/GattSystem.h"

namespace devio {

namespace {

constexpr const char kClientConfiguration[] = "00002902-0000-1000-8000-00805f9b34fb";
constexpr const char kBaseUuidTail[] = "-0000-1000-8000-00805f9b34fb";

std::string lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// The attribute handle is the hexadecimal end of the object's name
// ("…/service000a/char000b").
std::uint16_t attrOf(const std::string& object) {
    std::size_t i = object.size();
    while (i > 0 && std::isxdigit(static_cast<unsigned char>(object[i - 1])) &&
           object.size() - i < 4) {
        --i;
    }
    return static_cast<std::uint16_t>(std::strtoul(object.c_str() + i, nullptr, 16));
}

template <class T>
T attributeOf(const std::string& object, const bluez::GattObject& o) {
    T out;
    out.object = object;
    out.uuid = o.uuid;
    out.attr = attrOf(object);
    if (o.uuid.size() == 36 && o.uuid.rfind("0000", 0) == 0 &&
        o.uuid.compare(8, std::string::npos, kBaseUuidTail) == 0) {
        out.short_uuid =
            static_cast<std::uint16_t>(std::strtoul(o.uuid.substr(4, 4).c_str(), nullptr, 16));
    }
    return out;
}

std::uint32_t flagsOf(const std::vector<std::string>& names) {
    static const std::map<std::string, std::uint32_t> bits = {
        {"broadcast", gatt_flag::kBroadcast},
        {"read", gatt_flag::kRead},
        {"write", gatt_flag::kWrite},
        {"write-without-response", gatt_flag::kWriteWithoutResponse},
        {"authenticated-signed-writes", gatt_flag::kSignedWrite},
        {"notify", gatt_flag::kNotify},
        {"indicate", gatt_flag::kIndicate},
        {"extended-properties", gatt_flag::kExtended},
    };
    std::uint32_t flags = 0;
    for (const std::string& name : names) {
        const auto it = bits.find(name);
        if (it != bits.end()) flags |= it->second;
    }
    return flags;
}

std::uint32_t errorOf(int r) {
    return static_cast<std::uint32_t>(r < 0 ? -r : EIO);
}

// Any thread may call. `mutex_` guards the call connection and the open
// handles and is held across each call to BlueZ (bounded by
// kCallTimeoutUsec). `registrations_mutex_` guards the registrations; the
// signal thread holds it only to find one, and a registration's own mutex
// across its callback, so that unregistering waits for a callback under
// way. The signal thread alone uses the signal connection.
class BluezGatt : public IGattSystem {
public:
    ~BluezGatt() override {
        if (thread_.joinable()) {
            const std::uint64_t one = 1;
            if (::write(stop_fd_, &one, sizeof one) < 0) {
                // The thread then ends at its next wake-up.
            }
            stopping_ = true;
            thread_.join();
        }
        if (stop_fd_ >= 0) ::close(stop_fd_);
        if (signals_) sd_bus_flush_close_unref(signals_);
        if (calls_) sd_bus_flush_close_unref(calls_);
    }

    std::vector<HidInterface> interfaces() override {
        bluez::Snapshot now;
        std::string why;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            // No system bus, or no BlueZ on it: a machine without Bluetooth
            // has no GATT device, which is no failure.
            if (snapshot(now, why) < 0) return {};
        }
        std::vector<HidInterface> out;
        std::map<std::string, bool> seen;
        for (const auto& [path, object] : now.gatt) {
            if (object.kind != bluez::GattObject::Service || object.uuid != kVxpGattService)
                continue;
            if (!now.devices.count(object.parent) || seen[object.parent]) continue;
            seen[object.parent] = true;
            out.push_back({lower(object.parent), 0});
        }
        return out;
    }

    PlatformHandle open(const std::string& path, std::uint32_t& sys_error) override {
        std::lock_guard<std::mutex> lock(mutex_);
        bluez::Snapshot now;
        std::string why;
        const int r = snapshot(now, why);
        if (r < 0) {
            sys_error = errorOf(r);
            return kInvalidHandle;
        }
        for (const auto& [object, device] : now.devices) {
            if (lower(object) != path) continue;
            const PlatformHandle handle = next_handle_++;
            handles_[handle] = Device{object, now};
            return handle;
        }
        sys_error = ENOENT;
        return kInvalidHandle;
    }

    void close(PlatformHandle handle) override {
        std::lock_guard<std::mutex> lock(mutex_);
        handles_.erase(handle);
    }

    bool ids(const std::string& path, std::uint16_t& vid, std::uint16_t& pid) override {
        std::lock_guard<std::mutex> lock(mutex_);
        bluez::Snapshot now;
        std::string why;
        if (snapshot(now, why) < 0) return false;
        for (const auto& [object, device] : now.devices) {
            if (lower(object) != path) continue;
            unsigned v = 0, p = 0;
            const char* alias = device.modalias.c_str();
            const char* colon = std::strchr(alias, ':');
            if (colon && std::sscanf(colon + 1, "v%4xp%4x", &v, &p) == 2) {
                vid = static_cast<std::uint16_t>(v);
                pid = static_cast<std::uint16_t>(p);
                return true;
            }
            return false;
        }
        return false;
    }

    std::uint32_t services(PlatformHandle handle, std::size_t limit,
                           std::vector<GattService>& out) override {
        return children<GattService>(handle, bluez::GattObject::Service, {}, limit, out);
    }

    std::uint32_t characteristics(PlatformHandle handle, const GattService& service,
                                  std::size_t limit,
                                  std::vector<GattCharacteristic>& out) override {
        return children<GattCharacteristic>(handle, bluez::GattObject::Characteristic,
                                            service.object, limit, out);
    }

    std::uint32_t descriptors(PlatformHandle handle, const GattCharacteristic& characteristic,
                              std::size_t limit, std::vector<GattDescriptor>& out) override {
        return children<GattDescriptor>(handle, bluez::GattObject::Descriptor,
                                        characteristic.object, limit, out);
    }

    std::uint32_t read_value(PlatformHandle handle, const GattAttribute& attribute,
                             std::size_t limit, std::vector<Byte>& out) override {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto device = handles_.find(handle);
        if (device == handles_.end()) return EBADF;
        const auto it = device->second.tree.gatt.find(attribute.object);
        if (it == device->second.tree.gatt.end()) return ENOENT;
        if (it->second.value.empty()) return ENODATA;
        out.assign(
            it->second.value.begin(),
            it->second.value.begin() + static_cast<long>(std::min(limit, it->second.value.size())));
        return 0;
    }

    // Off means: no notification session of ours is left. BlueZ refuses to
    // stop one that was never started, which is already the state wanted.
    std::uint32_t set_notify(PlatformHandle handle, const GattDescriptor& descriptor,
                             bool notify) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!handles_.count(handle)) return EBADF;
        if (!notify) {
            int notifying = 0;
            sd_bus_error error = SD_BUS_ERROR_NULL;
            const int r = sd_bus_get_property_trivial(
                calls_, bluez::kService, descriptor.characteristic.c_str(),
                bluez::kGattCharacteristicInterface, "Notifying", &error, 'b', &notifying);
            sd_bus_error_free(&error);
            if (r < 0) return errorOf(r);
            if (!notifying) return 0;
        }
        return call(descriptor.characteristic, notify ? "StartNotify" : "StopNotify", nullptr);
    }

    std::uint32_t register_value_changed(PlatformHandle handle,
                                         const GattCharacteristic& characteristic,
                                         ValueChanged callback, std::uintptr_t& event) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!handles_.count(handle)) return EBADF;
            const int r = startListening();
            if (r < 0) return errorOf(r);
        }
        auto registration = std::make_shared<Registration>();
        registration->object = characteristic.object;
        registration->callback = std::move(callback);
        std::lock_guard<std::mutex> lock(registrations_mutex_);
        event = next_event_++;
        registrations_[event] = std::move(registration);
        return 0;
    }

    std::uint32_t unregister_value_changed(std::uintptr_t event) override {
        std::shared_ptr<Registration> gone;
        {
            std::lock_guard<std::mutex> lock(registrations_mutex_);
            const auto it = registrations_.find(event);
            if (it == registrations_.end()) return ENOENT;
            gone = std::move(it->second);
            registrations_.erase(it);
        }
        // Waits for a callback under way on the signal thread; from that
        // thread itself the lock is taken again at once.
        std::lock_guard<std::recursive_mutex> lock(gone->mutex);
        gone->ended = true;
        return 0;
    }

    std::uint32_t write_value(PlatformHandle handle, const GattCharacteristic& characteristic,
                              const std::vector<Byte>& value, bool without_response) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!handles_.count(handle)) return EBADF;
        sd_bus_message* m = nullptr;
        int r = sd_bus_message_new_method_call(calls_, &m, bluez::kService,
                                               characteristic.object.c_str(),
                                               bluez::kGattCharacteristicInterface, "WriteValue");
        if (r >= 0) r = sd_bus_message_append_array(m, 'y', value.data(), value.size());
        if (r >= 0)
            r = sd_bus_message_append(m, "a{sv}", 1, "type", "s",
                                      without_response ? "command" : "request");
        if (r < 0) {
            sd_bus_message_unref(m);
            return errorOf(r);
        }
        return call(characteristic.object, nullptr, m);
    }

private:
    struct Device {
        std::string object;
        bluez::Snapshot tree;  // as it was at open
    };
    struct Registration {
        std::string object;
        ValueChanged callback;
        std::recursive_mutex mutex;  // held across the callback
        bool ended = false;          // guarded by mutex
    };

    // Under mutex_.
    int connect(std::string& why) {
        if (calls_) return 0;
        const int r = bluez::openSystemBus(&calls_);
        if (r < 0) {
            calls_ = nullptr;
            why = std::string("no system bus: ") + std::strerror(-r);
        }
        return r;
    }

    // Under mutex_. A connection that failed is opened anew next time.
    int snapshot(bluez::Snapshot& out, std::string& why) {
        int r = connect(why);
        if (r < 0) return r;
        r = bluez::readSnapshot(calls_, out, why);
        if (r == -ECONNRESET || r == -ENOTCONN) {
            sd_bus_flush_close_unref(calls_);
            calls_ = nullptr;
        }
        return r;
    }

    // Under mutex_: a call of `member` without arguments, or of the
    // prepared `message`, which this consumes.
    std::uint32_t call(const std::string& object, const char* member, sd_bus_message* message) {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        int r = 0;
        if (message) {
            r = sd_bus_call(calls_, message, bluez::kCallTimeoutUsec, &error, nullptr);
            sd_bus_message_unref(message);
        } else {
            r = sd_bus_call_method(calls_, bluez::kService, object.c_str(),
                                   bluez::kGattCharacteristicInterface, member, &error, nullptr,
                                   "");
        }
        sd_bus_error_free(&error);
        return r < 0 ? errorOf(r) : 0;
    }

    template <class T>
    std::uint32_t children(PlatformHandle handle, bluez::GattObject::Kind kind,
                           const std::string& parent, std::size_t limit, std::vector<T>& out) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto device = handles_.find(handle);
        if (device == handles_.end()) return EBADF;
        const bluez::Snapshot& tree = device->second.tree;
        const std::string& owner = parent.empty() ? device->second.object : parent;
        out.clear();
        for (const auto& [object, o] : tree.gatt) {
            if (o.kind != kind || o.parent != owner) continue;
            if (out.size() == limit) return ENOBUFS;
            T entry = attributeOf<T>(object, o);
            fill(entry, o);
            out.push_back(std::move(entry));
        }
        return out.empty() ? ENOENT : 0;
    }

    static void fill(GattService&, const bluez::GattObject&) {}
    static void fill(GattCharacteristic& c, const bluez::GattObject& o) {
        c.flags = flagsOf(o.flags);
    }
    static void fill(GattDescriptor& d, const bluez::GattObject& o) {
        d.characteristic = o.parent;
        d.type = o.uuid == kClientConfiguration ? kGattClientConfiguration : 0;
    }

    // Under mutex_. The second connection and its thread, at the first
    // registration; the match is in place before this returns, so that no
    // change after it is missed.
    int startListening() {
        if (thread_.joinable()) return 0;
        int r = bluez::openSystemBus(&signals_);
        if (r < 0) {
            signals_ = nullptr;
            return r;
        }
        r = sd_bus_match_signal(signals_, nullptr, bluez::kService, nullptr,
                                "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                &BluezGatt::onChanged, this);
        if (r >= 0) {
            stop_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
            if (stop_fd_ < 0) r = -errno;
        }
        if (r < 0) {
            sd_bus_flush_close_unref(signals_);
            signals_ = nullptr;
            return r;
        }
        thread_ = std::thread([this] { listen(); });
        return 0;
    }

    void listen() {
        while (!stopping_) {
            int r = 0;
            while ((r = sd_bus_process(signals_, nullptr)) > 0) {
            }
            if (r < 0) return;  // the bus went; no change can come any more
            pollfd fds[2] = {
                {sd_bus_get_fd(signals_), static_cast<short>(sd_bus_get_events(signals_)), 0},
                {stop_fd_, POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
            if (fds[1].revents) return;
        }
    }

    static int onChanged(sd_bus_message* m, void* self, sd_bus_error*) {
        auto* me = static_cast<BluezGatt*>(self);
        const char* interface = nullptr;
        if (sd_bus_message_read_basic(m, 's', &interface) < 0 ||
            std::strcmp(interface, bluez::kGattCharacteristicInterface) != 0) {
            return 0;
        }
        bluez::GattObject changed;
        changed.value.clear();
        bool has_value = false;
        const int r = bluez::readGattProperties(m, changed);
        if (r < 0) return 0;
        // readGattProperties leaves the value empty when the change does not
        // name it; an empty value is no report either.
        has_value = !changed.value.empty();
        if (!has_value) return 0;
        me->deliver(sd_bus_message_get_path(m), changed.value);
        return 0;
    }

    void deliver(const std::string& object, const std::vector<Byte>& value) {
        std::vector<std::shared_ptr<Registration>> targets;
        {
            std::lock_guard<std::mutex> lock(registrations_mutex_);
            for (const auto& [event, registration] : registrations_) {
                if (registration->object == object) targets.push_back(registration);
            }
        }
        for (const auto& target : targets) {
            std::lock_guard<std::recursive_mutex> lock(target->mutex);
            if (!target->ended) target->callback(value);
        }
    }

    std::mutex mutex_;
    sd_bus* calls_ = nullptr;                   // guarded by mutex_
    std::map<PlatformHandle, Device> handles_;  // guarded by mutex_
    PlatformHandle next_handle_ = 1;            // guarded by mutex_

    std::mutex registrations_mutex_;
    std::map<std::uintptr_t, std::shared_ptr<Registration>> registrations_;
    std::uintptr_t next_event_ = 1;  // guarded by registrations_mutex_

    sd_bus* signals_ = nullptr;  // the signal thread's, once started
    int stop_fd_ = -1;
    std::atomic<bool> stopping_{false};
    std::thread thread_;  // started under mutex_
};

}  // namespace

std::shared_ptr<IGattSystem> makePlatformGatt(const std::shared_ptr<IWin32System>& /*system*/) {
    return std::make_shared<BluezGatt>();
}

}  // namespace devio
