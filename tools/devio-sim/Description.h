#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "Report.h"

namespace devio_sim {

// What simulated hardware is made of. Descriptions are plain values: a device
// keeps its own copy and changes it as the host writes to it.

// One entry of a device's feature table; index = position + 1, since the
// root feature always sits at index 0.
struct FeatureEntry {
    std::uint16_t id = 0;
    Byte version = 0;
    bool obsolete = false;
    bool hidden = false;
    bool engineering = false;
};

struct FirmwareEntity {
    Byte type = 0;
    std::string prefix = "MPM";      // three characters on the wire
    std::uint16_t version = 0x0100;  // BCD
    std::uint16_t build = 0;         // BCD
    Byte rdnf = 1;                   // bit 0: the entity now running
    std::vector<Byte> extra;         // up to 7 bytes
};

struct EntityInfo {
    std::uint32_t unit_id = 0;
    std::uint16_t transport = 0;
    std::array<std::uint16_t, 3> pids{};
    Byte extended_model_id = 0;
};

struct FriendlyName {
    std::string name;
    std::string default_name;
    Byte max_len = 32;
};

struct Battery {
    Byte level = 90;
    Byte next_level = 50;
    Byte status = 0;
    Byte number_of_levels = 4;
    Byte flags = 0;
    std::uint16_t nominal_life = 0;
    Byte critical_level = 5;
};

// What the device says in its wireless status notification when its link
// comes up.
struct WirelessStatus {
    Byte reconnect = 1;
    Byte config_needed = 1;
    Byte power_switch = 0;
};

struct Property {
    std::string name;
    bool is_float = false;
    bool has_range = false;
    bool flag_a = false;
    bool flag_b = false;
    bool writable = true;
    std::int32_t ivalue = 0, imin = 0, imax = 0;
    float fvalue = 0, fmin = 0, fmax = 0;
    // What a reset brings back; set from the value at load.
    std::int32_t idefault = 0;
    float fdefault = 0;
};

// One top-level HID collection with one input and one output report of the
// same size (the report id byte included).
struct Collection {
    std::uint16_t usage_page = 0xFF43;
    std::uint16_t usage = 0x0202;
    Byte report_id = kLongReportId;
    Byte size = kLongReportSize;
};

struct DeviceDescription {
    std::string id;    // the name that run-time commands use
    std::string name;  // product string
    std::uint16_t vid = 0x2E5A;
    std::uint16_t pid = 0;
    std::uint16_t release = 0x0100;  // bcdDevice
    std::string bus = "usb";         // "usb", "bluetooth" (classic) or "ble" (Low Energy)
    // Bluetooth only: the device's address in HID_UNIQ; empty gives one made
    // from the product id and the port. Several nodes of one Low Energy
    // device share it.
    std::string address;
    std::string serial;

    int vxp = 2;  // 1: answers registers only
    Byte protocol = 4;
    Byte target_sw = 0;
    std::vector<FeatureEntry> features;
    std::vector<FirmwareEntity> entities;
    EntityInfo entity_info;
    std::string marketing_name;
    Byte device_type = 3;
    FriendlyName friendly;
    Battery battery;
    std::uint16_t cookie = 0;
    WirelessStatus wireless;
    std::vector<Property> properties;
    std::vector<Collection> collections;
    bool plugged = true;

    // Behind a receiver only.
    std::uint16_t qid = 0;
    int slot = 0;  // device number, 1-based; 0 = first free
    bool paired = true;
    bool connected = true;
    Byte slot_status = 0x01;

    // Index of the feature with this id, 0 when absent (0 is the root's).
    Byte featureIndex(std::uint16_t feature_id) const;
};

struct ReceiverDescription {
    std::string id;
    std::string name;
    std::uint16_t vid = 0x2E5A;
    std::uint16_t pid = 0xA101;
    std::uint16_t release = 0x0100;
    std::string serial;
    int max_devices = 6;
    Byte protocol_byte = 4;
    std::array<Byte, 3> register0{};
    std::array<Byte, 3> register3{};
    std::vector<Collection> collections;
    std::vector<DeviceDescription> devices;
    bool plugged = true;
};

struct MachineDescription {
    std::vector<DeviceDescription> devices;
    std::vector<ReceiverDescription> receivers;
};

}  // namespace devio_sim
