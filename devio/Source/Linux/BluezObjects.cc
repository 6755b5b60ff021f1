#include "Linux/BluezObjects.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Linux/SysfsHidraw.h"

namespace devio::bluez {

namespace {

constexpr const char kHidOverGatt[] = "00001812-0000-1000-8000-00805f9b34fb";
constexpr const char kHidProfile[] = "00001124-0000-1000-8000-00805f9b34fb";

// Reads a variant holding one basic value of type `type` into `out`; any
// other content is skipped, so a property of an unexpected type is ignored.
template <class T>
int readVariant(sd_bus_message* m, char type, T& out) {
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(m, nullptr, &contents);
    if (r < 0) return r;
    const char want[2] = {type, 0};
    if (contents == nullptr || std::strcmp(contents, want) != 0) return sd_bus_message_skip(m, "v");
    r = sd_bus_message_enter_container(m, 'v', want);
    if (r < 0) return r;
    r = sd_bus_message_read_basic(m, type, &out);
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

// Walks an a{sv}, giving each key to `one`, which reads or skips its variant.
template <class F>
int readEachProperty(sd_bus_message* m, F&& one) {
    int r = sd_bus_message_enter_container(m, 'a', "{sv}");
    if (r < 0) return r;
    while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
        const char* key = nullptr;
        r = sd_bus_message_read_basic(m, 's', &key);
        if (r < 0) return r;
        r = one(std::string(key));
        if (r < 0) return r;
        r = sd_bus_message_exit_container(m);
        if (r < 0) return r;
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

}  // namespace

int readText(sd_bus_message* m, char type, std::string& out) {
    const char* text = nullptr;
    const int r = readVariant(m, type, text);
    if (r >= 0 && text != nullptr) out = text;
    return r;
}

int readFlag(sd_bus_message* m, bool& out) {
    int value = out ? 1 : 0;
    const int r = readVariant(m, 'b', value);
    if (r >= 0) out = value != 0;
    return r;
}

int readUint16(sd_bus_message* m, std::uint16_t& out) {
    return readVariant(m, 'q', out);
}

int readBytes(sd_bus_message* m, std::vector<std::uint8_t>& out) {
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(m, nullptr, &contents);
    if (r < 0) return r;
    if (contents == nullptr || std::strcmp(contents, "ay") != 0) return sd_bus_message_skip(m, "v");
    r = sd_bus_message_enter_container(m, 'v', "ay");
    if (r < 0) return r;
    const void* data = nullptr;
    std::size_t size = 0;
    r = sd_bus_message_read_array(m, 'y', &data, &size);
    if (r < 0) return r;
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    out.assign(bytes, bytes + size);
    return sd_bus_message_exit_container(m);
}

int readStrings(sd_bus_message* m, std::vector<std::string>& out) {
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(m, nullptr, &contents);
    if (r < 0) return r;
    if (contents == nullptr || std::strcmp(contents, "as") != 0) return sd_bus_message_skip(m, "v");
    r = sd_bus_message_enter_container(m, 'v', "as");
    if (r < 0) return r;
    char** list = nullptr;
    r = sd_bus_message_read_strv(m, &list);
    if (r < 0) return r;
    out.clear();
    for (char** each = list; each && *each; ++each) {
        out.emplace_back(*each);
        std::free(*each);
    }
    std::free(list);
    return sd_bus_message_exit_container(m);
}

namespace {

int readProperty(sd_bus_message* m, const std::string& key, RemoteDevice& d) {
    if (key == "Address") {
        std::string text;
        const int r = readText(m, 's', text);
        if (r >= 0 && !linux_hid::parseBluetoothAddress(text, d.address)) d.address = 0;
        return r;
    }
    if (key == "AddressType") return readText(m, 's', d.address_type);
    if (key == "Name") return readText(m, 's', d.name);
    if (key == "Adapter") return readText(m, 'o', d.adapter);
    if (key == "Paired") return readFlag(m, d.paired);
    if (key == "Connected") return readFlag(m, d.connected);
    if (key == "UUIDs") return readStrings(m, d.uuids);
    if (key == "Class") return readVariant(m, 'u', d.class_of_device);
    if (key == "Modalias") return readText(m, 's', d.modalias);
    return sd_bus_message_skip(m, "v");
}

}  // namespace

int gattKind(const std::string& interface) {
    if (interface == kGattServiceInterface) return GattObject::Service;
    if (interface == kGattCharacteristicInterface) return GattObject::Characteristic;
    if (interface == kGattDescriptorInterface) return GattObject::Descriptor;
    return -1;
}

int readDeviceProperties(sd_bus_message* m, RemoteDevice& d) {
    return readEachProperty(m, [&](const std::string& key) { return readProperty(m, key, d); });
}

namespace {

int readGattProperty(sd_bus_message* m, const std::string& key, GattObject& o) {
    if (key == "UUID") {
        const int r = readText(m, 's', o.uuid);
        for (char& c : o.uuid) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return r;
    }
    if (key == "Device" || key == "Service" || key == "Characteristic")
        return readText(m, 'o', o.parent);
    if (key == "Flags") return readStrings(m, o.flags);
    if (key == "Value") return readBytes(m, o.value);
    if (key == "Notifying") return readFlag(m, o.notifying);
    return sd_bus_message_skip(m, "v");
}

}  // namespace

int readGattProperties(sd_bus_message* m, GattObject& o) {
    return readEachProperty(m, [&](const std::string& key) { return readGattProperty(m, key, o); });
}

int readInterfaces(sd_bus_message* m, const std::string& path, Snapshot& snapshot,
                   std::set<std::string>& added) {
    int r = sd_bus_message_enter_container(m, 'a', "{sa{sv}}");
    if (r < 0) return r;
    while ((r = sd_bus_message_enter_container(m, 'e', "sa{sv}")) > 0) {
        const char* name = nullptr;
        r = sd_bus_message_read_basic(m, 's', &name);
        if (r < 0) return r;
        const std::string interface = name;
        if (interface == kDeviceInterface) {
            r = readDeviceProperties(m, snapshot.devices[path]);
        } else if (const int kind = gattKind(interface); kind >= 0) {
            GattObject& object = snapshot.gatt[path];
            object.kind = static_cast<GattObject::Kind>(kind);
            r = readGattProperties(m, object);
        } else {
            if (interface == kAdapterInterface) snapshot.adapters.insert(path);
            r = sd_bus_message_skip(m, "a{sv}");
        }
        if (r < 0) return r;
        added.insert(interface);
        r = sd_bus_message_exit_container(m);
        if (r < 0) return r;
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

int readSnapshot(sd_bus* bus, Snapshot& out, std::string& why) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call_method(bus, kService, "/", "org.freedesktop.DBus.ObjectManager",
                               "GetManagedObjects", &error, &reply, "");
    if (r < 0) {
        why = error.message ? error.message : std::strerror(-r);
        sd_bus_error_free(&error);
        return r;
    }
    Snapshot snapshot;
    r = sd_bus_message_enter_container(reply, 'a', "{oa{sa{sv}}}");
    while (r >= 0 && (r = sd_bus_message_enter_container(reply, 'e', "oa{sa{sv}}")) > 0) {
        const char* path = nullptr;
        r = sd_bus_message_read_basic(reply, 'o', &path);
        std::set<std::string> interfaces;
        if (r >= 0) r = readInterfaces(reply, path, snapshot, interfaces);
        if (r >= 0) r = sd_bus_message_exit_container(reply);
    }
    sd_bus_message_unref(reply);
    if (r < 0) {
        why = "unexpected answer from BlueZ";
        return r;
    }
    out = std::move(snapshot);
    return 0;
}

int bearerOf(const RemoteDevice& device) {
    const auto has = [&](const char* uuid) {
        return std::find(device.uuids.begin(), device.uuids.end(), uuid) != device.uuids.end();
    };
    if (has(kHidOverGatt)) return 3;
    if (has(kHidProfile)) return 2;
    if (device.address_type == "random") return 3;
    return 0;
}

int openSystemBus(sd_bus** out) {
    sd_bus* bus = nullptr;
    // DBUS_SYSTEM_BUS_ADDRESS, where set, names the system bus.
    int r = sd_bus_open_system(&bus);
    if (r < 0) return r;
    r = sd_bus_set_method_call_timeout(bus, kCallTimeoutUsec);
    if (r < 0) {
        sd_bus_flush_close_unref(bus);
        return r;
    }
    *out = bus;
    return 0;
}

}  // namespace devio::bluez
