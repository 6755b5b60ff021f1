#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace devio::bluez {

inline constexpr const char kService[] = "org.bluez";
inline constexpr const char kAdapterInterface[] = "org.bluez.Adapter1";
inline constexpr const char kDeviceInterface[] = "org.bluez.Device1";
// No call to BlueZ waits longer: the platform bus's callers give up after
// 5000 ms, and a start may make two calls.
inline constexpr std::uint64_t kCallTimeoutUsec = 2'000'000;

// What BlueZ tells of one remote device (org.bluez.Device1).
struct RemoteDevice {
    std::string adapter;  // the radio's object path
    std::uint64_t address = 0;
    std::string address_type;  // "public" or "random"
    std::string name;
    std::uint32_t class_of_device = 0;
    bool paired = false;
    bool connected = false;
    std::vector<std::string> uuids;
    std::string modalias;  // "bluetooth:v046DpB35Bd0001" where known
};

inline constexpr const char kGattServiceInterface[] = "org.bluez.GattService1";
inline constexpr const char kGattCharacteristicInterface[] = "org.bluez.GattCharacteristic1";
inline constexpr const char kGattDescriptorInterface[] = "org.bluez.GattDescriptor1";

// One object of a remote GATT database: a service (its parent is the
// device), a characteristic (its service) or a descriptor (its
// characteristic).
struct GattObject {
    enum Kind { Service, Characteristic, Descriptor };
    Kind kind = Service;
    std::string uuid;    // lower case
    std::string parent;  // object path
    std::vector<std::string> flags;
    std::vector<std::uint8_t> value;  // as BlueZ last knew it
    bool notifying = false;
};

// The objects of BlueZ at one moment: radios by path, devices by path,
// GATT objects by path.
struct Snapshot {
    std::set<std::string> adapters;
    std::map<std::string, RemoteDevice> devices;
    std::map<std::string, GattObject> gatt;
};

// Readers of one property's variant; a value of another type is skipped
// and leaves `out` as it was.
int readText(sd_bus_message* message, char type, std::string& out);
int readFlag(sd_bus_message* message, bool& out);
int readUint16(sd_bus_message* message, std::uint16_t& out);
int readStrings(sd_bus_message* message, std::vector<std::string>& out);
int readBytes(sd_bus_message* message, std::vector<std::uint8_t>& out);

// Reads an a{sv} of Device1 properties into `device`, changing only what it
// names. A negative errno when the message is not of that shape.
int readDeviceProperties(sd_bus_message* message, RemoteDevice& device);
// Reads an a{sv} of properties of a GATT object into `object`, changing
// only what it names.
int readGattProperties(sd_bus_message* message, GattObject& object);
// The GattObject kind of a GATT interface name, or -1 for another one.
int gattKind(const std::string& interface);
// Reads an a{sa{sv}} of interfaces with their properties for the object at
// `path` into `snapshot`; `added` gets the interfaces named.
int readInterfaces(sd_bus_message* message, const std::string& path, Snapshot& snapshot,
                   std::set<std::string>& added);
// Everything BlueZ has now, by GetManagedObjects; a negative errno on
// failure.
int readSnapshot(sd_bus* bus, Snapshot& out, std::string& why);

// The bearer as a bus type: 3 for Low Energy (the HID-over-GATT service, or
// a random address, which only LE has), 2 for classic (the HID profile);
// 0 when the properties do not tell, as for a public address with no HID
// service known yet.
int bearerOf(const RemoteDevice& device);

// Opens a connection to the system bus whose calls are bounded in time.
int openSystemBus(sd_bus** out);

}  // namespace devio::bluez
