#include "DescriptionJson.h"

#include <cctype>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>

namespace devio_sim {

namespace {

using nlohmann::json;

const char* const kDeviceTypes[] = {"keyboard", "remote",   "numpad",   "mouse",   "touch",
                                    "track",    "present",  "receiver", "headset", "webcam",
                                    "steering", "joystick", "gamepad"};

// The features a device has when its description lists none: all that the
// simulated firmware implements.
const std::uint16_t kDefaultFeatures[] = {0x0001, 0x0003, 0x0005, 0x0007,
                                          0x0020, 0x1000, 0x1D4B, 0x1F1F};

[[noreturn]] void fail(const std::string& where, const std::string& what) {
    throw std::runtime_error(where + ": " + what);
}

// Numbers may be written as JSON numbers or as text ("0x2E5A", "42").
std::uint64_t number(const json& v, const std::string& where, std::uint64_t max) {
    std::uint64_t n = 0;
    if (v.is_number_unsigned()) {
        n = v.get<std::uint64_t>();
    } else if (v.is_number_integer() && v.get<std::int64_t>() >= 0) {
        n = static_cast<std::uint64_t>(v.get<std::int64_t>());
    } else if (v.is_string()) {
        const std::string s = v.get<std::string>();
        std::size_t used = 0;
        try {
            n = std::stoull(s, &used, 0);
        } catch (const std::exception&) {
            fail(where, "not a number: " + s);
        }
        if (used != s.size()) fail(where, "not a number: " + s);
    } else {
        fail(where, "expected a number");
    }
    if (n > max) fail(where, "out of range");
    return n;
}

template <typename T>
void take(const json& obj, const char* key, T& out, const std::string& where) {
    if (!obj.contains(key)) return;
    const json& v = obj.at(key);
    const std::string at = where + "." + key;
    if constexpr (std::is_same_v<T, bool>) {
        if (!v.is_boolean()) fail(at, "expected true or false");
        out = v.get<bool>();
    } else if constexpr (std::is_same_v<T, std::string>) {
        if (!v.is_string()) fail(at, "expected text");
        out = v.get<std::string>();
    } else if constexpr (std::is_same_v<T, float>) {
        if (!v.is_number()) fail(at, "expected a number");
        out = v.get<float>();
    } else if constexpr (std::is_signed_v<T>) {
        if (!v.is_number_integer()) fail(at, "expected an integer");
        const auto n = v.get<std::int64_t>();
        if (n < std::numeric_limits<T>::min() || n > std::numeric_limits<T>::max()) {
            fail(at, "out of range");
        }
        out = static_cast<T>(n);
    } else {
        out = static_cast<T>(number(v, at, std::numeric_limits<T>::max()));
    }
}

// Calls `each` for every element of the list at `key`, with its path.
template <typename F>
void forEachIn(const json& obj, const char* key, const std::string& where, std::size_t max,
               F each) {
    if (!obj.contains(key)) return;
    const json& list = obj.at(key);
    const std::string at = where + "." + key;
    if (!list.is_array() || list.size() > max) {
        fail(at, "expected a list of at most " + std::to_string(max));
    }
    for (std::size_t i = 0; i < list.size(); ++i) each(list[i], at + "[" + std::to_string(i) + "]");
}

// Calls `each` with the object at `key`, if there is one, and its path.
template <typename F>
void withObject(const json& obj, const char* key, const std::string& where, F each) {
    if (!obj.contains(key)) return;
    if (!obj.at(key).is_object()) fail(where + "." + key, "expected an object");
    each(obj.at(key), where + "." + key);
}

std::vector<Byte> bytes(const json& v, const std::string& where, std::size_t max) {
    if (!v.is_array() || v.size() > max)
        fail(where, "expected at most " + std::to_string(max) + " bytes");
    std::vector<Byte> out;
    for (std::size_t i = 0; i < v.size(); ++i) {
        out.push_back(static_cast<Byte>(number(v[i], where + "[" + std::to_string(i) + "]", 0xFF)));
    }
    return out;
}

std::uint32_t stableHash(const std::string& s) {
    std::uint32_t h = 2166136261u;
    for (char c : s) h = (h ^ static_cast<Byte>(c)) * 16777619u;
    return h;
}

bool validAddress(const std::string& text) {
    if (text.size() != 17) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool colon = i % 3 == 2;
        if (colon != (text[i] == ':')) return false;
        if (!colon && !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
    }
    return true;
}

std::vector<Collection> parseCollections(const json& v, const std::string& where) {
    if (!v.is_array() || v.empty()) fail(where, "expected a list of collections");
    std::vector<Collection> out;
    std::set<int> ids;
    for (std::size_t i = 0; i < v.size(); ++i) {
        const std::string at = where + "[" + std::to_string(i) + "]";
        Collection c;
        take(v[i], "usage_page", c.usage_page, at);
        take(v[i], "usage", c.usage, at);
        take(v[i], "report_id", c.report_id, at);
        take(v[i], "size", c.size, at);
        if (c.report_id == 0 || c.size < 2) fail(at, "needs a report id and a size of at least 2");
        if (!ids.insert(c.report_id).second) fail(at, "report id used twice");
        out.push_back(c);
    }
    return out;
}

FeatureEntry parseFeature(const json& v, const std::string& where) {
    FeatureEntry f;
    if (!v.is_object()) {
        f.id = static_cast<std::uint16_t>(number(v, where, 0xFFFF));
        return f;
    }
    if (!v.contains("id")) fail(where, "feature without id");
    take(v, "id", f.id, where);
    take(v, "version", f.version, where);
    take(v, "obsolete", f.obsolete, where);
    take(v, "hidden", f.hidden, where);
    take(v, "engineering", f.engineering, where);
    return f;
}

FirmwareEntity parseEntity(const json& v, const std::string& where) {
    FirmwareEntity e;
    take(v, "type", e.type, where);
    take(v, "prefix", e.prefix, where);
    take(v, "version", e.version, where);
    take(v, "build", e.build, where);
    take(v, "rdnf", e.rdnf, where);
    if (v.contains("extra")) e.extra = bytes(v.at("extra"), where + ".extra", 7);
    if (e.prefix.size() > 3) fail(where + ".prefix", "at most three characters");
    return e;
}

Property parseProperty(const json& v, const std::string& where) {
    Property p;
    take(v, "name", p.name, where);
    std::string type = "int";
    take(v, "type", type, where);
    if (type != "int" && type != "float") fail(where + ".type", "int or float");
    p.is_float = type == "float";
    p.has_range = v.contains("min") || v.contains("max");
    take(v, "flag_a", p.flag_a, where);
    take(v, "flag_b", p.flag_b, where);
    take(v, "writable", p.writable, where);
    if (p.is_float) {
        p.fmin = -3.4028235e38f;
        p.fmax = 3.4028235e38f;
        take(v, "value", p.fvalue, where);
        take(v, "min", p.fmin, where);
        take(v, "max", p.fmax, where);
    } else {
        p.imin = std::numeric_limits<std::int32_t>::min();
        p.imax = std::numeric_limits<std::int32_t>::max();
        take(v, "value", p.ivalue, where);
        take(v, "min", p.imin, where);
        take(v, "max", p.imax, where);
    }
    if (p.name.size() > 15) fail(where + ".name", "at most 15 characters");
    p.idefault = p.ivalue;
    p.fdefault = p.fvalue;
    return p;
}

void parseFirmware(const json& v, DeviceDescription& d, const std::string& where) {
    std::string vxp = "2.0";
    take(v, "vxp", vxp, where);
    if (vxp != "1.0" && vxp != "2.0") fail(where + ".vxp", "\"1.0\" or \"2.0\"");
    d.vxp = vxp == "1.0" ? 1 : 2;
    take(v, "protocol", d.protocol, where);
    take(v, "target_sw", d.target_sw, where);
    forEachIn(v, "features", where, 254, [&](const json& f, const std::string& at) {
        d.features.push_back(parseFeature(f, at));
    });
    if (!v.contains("features")) {
        for (std::uint16_t id : kDefaultFeatures) d.features.push_back(FeatureEntry{id});
    }
    forEachIn(v, "entities", where, 254, [&](const json& e, const std::string& at) {
        d.entities.push_back(parseEntity(e, at));
    });
    if (!v.contains("entities")) d.entities.push_back(FirmwareEntity{});
    d.entity_info.unit_id = stableHash(d.id);
    d.entity_info.pids[0] = d.qid != 0 ? d.qid : d.pid;
    withObject(v, "entity_info", where, [&](const json& e, const std::string& at) {
        take(e, "unit_id", d.entity_info.unit_id, at);
        take(e, "transport", d.entity_info.transport, at);
        take(e, "extended_model_id", d.entity_info.extended_model_id, at);
        std::size_t n = 0;
        forEachIn(e, "pids", at, 3, [&](const json& pid, const std::string& pid_at) {
            d.entity_info.pids[n++] = static_cast<std::uint16_t>(number(pid, pid_at, 0xFFFF));
        });
    });
    d.marketing_name = d.name;
    take(v, "marketing_name", d.marketing_name, where);
    if (v.contains("device_type")) {
        const json& t = v.at("device_type");
        bool found = false;
        for (std::size_t i = 0; t.is_string() && i < std::size(kDeviceTypes); ++i) {
            if (t.get<std::string>() == kDeviceTypes[i]) {
                d.device_type = static_cast<Byte>(i);
                found = true;
            }
        }
        if (!found) d.device_type = static_cast<Byte>(number(t, where + ".device_type", 0xFF));
    }
    d.friendly.name = d.friendly.default_name = d.marketing_name;
    withObject(v, "friendly_name", where, [&](const json& f, const std::string& at) {
        take(f, "name", d.friendly.name, at);
        d.friendly.default_name = d.friendly.name;
        take(f, "default", d.friendly.default_name, at);
        take(f, "max_len", d.friendly.max_len, at);
    });
    if (d.friendly.name.size() > d.friendly.max_len) d.friendly.name.resize(d.friendly.max_len);
    withObject(v, "battery", where, [&](const json& b, const std::string& at) {
        take(b, "level", d.battery.level, at);
        take(b, "next_level", d.battery.next_level, at);
        take(b, "status", d.battery.status, at);
        take(b, "number_of_levels", d.battery.number_of_levels, at);
        take(b, "flags", d.battery.flags, at);
        take(b, "nominal_life", d.battery.nominal_life, at);
        take(b, "critical_level", d.battery.critical_level, at);
    });
    take(v, "cookie", d.cookie, where);
    withObject(v, "wireless_status", where, [&](const json& w, const std::string& at) {
        take(w, "reconnect", d.wireless.reconnect, at);
        take(w, "config_needed", d.wireless.config_needed, at);
        take(w, "power_switch", d.wireless.power_switch, at);
    });
    forEachIn(v, "properties", where, 0xFE, [&](const json& p, const std::string& at) {
        d.properties.push_back(parseProperty(p, at));
    });
}

void parseIdentity(const json& v, std::string& id, std::string& name, std::uint16_t& vid,
                   std::uint16_t& pid, std::uint16_t& release, std::string& serial,
                   const std::string& where) {
    if (!v.is_object()) fail(where, "expected an object");
    if (!v.contains("id")) fail(where, "needs an id");
    take(v, "id", id, where);
    name = id;
    take(v, "name", name, where);
    take(v, "vid", vid, where);
    take(v, "pid", pid, where);
    take(v, "release", release, where);
    take(v, "serial", serial, where);
}

DeviceDescription parseDevice(const json& v, const std::string& where, bool paired) {
    DeviceDescription d;
    parseIdentity(v, d.id, d.name, d.vid, d.pid, d.release, d.serial, where);
    if (paired) {
        take(v, "qid", d.qid, where);
        take(v, "slot", d.slot, where);
        take(v, "paired", d.paired, where);
        take(v, "connected", d.connected, where);
        take(v, "slot_status", d.slot_status, where);
        if (d.qid == 0) fail(where, "a paired device needs a qid");
    } else {
        take(v, "bus", d.bus, where);
        take(v, "plugged", d.plugged, where);
        if (d.bus != "usb" && d.bus != "bluetooth" && d.bus != "ble")
            fail(where + ".bus", "usb, bluetooth or ble");
        take(v, "address", d.address, where);
        if (!d.address.empty() && (d.bus == "usb" || !validAddress(d.address)))
            fail(where + ".address", "a Bluetooth address such as 00:1f:20:b4:01:01");
        if (v.contains("collections")) {
            d.collections = parseCollections(v.at("collections"), where + ".collections");
        } else {
            d.collections.push_back(Collection{});
        }
    }
    parseFirmware(v, d, where);
    return d;
}

ReceiverDescription parseReceiver(const json& v, const std::string& where) {
    ReceiverDescription r;
    parseIdentity(v, r.id, r.name, r.vid, r.pid, r.release, r.serial, where);
    receiverProduct(r.pid, r.max_devices, r.protocol_byte);
    take(v, "max_devices", r.max_devices, where);
    take(v, "protocol_byte", r.protocol_byte, where);
    take(v, "plugged", r.plugged, where);
    if (r.max_devices < 1 || r.max_devices > 14) fail(where + ".max_devices", "1 to 14");
    if (v.contains("register0")) {
        const auto b = bytes(v.at("register0"), where + ".register0", 3);
        std::copy(b.begin(), b.end(), r.register0.begin());
    }
    if (v.contains("register3")) {
        const auto b = bytes(v.at("register3"), where + ".register3", 3);
        std::copy(b.begin(), b.end(), r.register3.begin());
    }
    if (v.contains("collections")) {
        r.collections = parseCollections(v.at("collections"), where + ".collections");
    } else {
        r.collections = {Collection{0xFF00, 1, kShortReportId, kShortReportSize},
                         Collection{0xFF00, 2, kLongReportId, kLongReportSize}};
    }
    std::set<int> slots;
    forEachIn(v, "devices", where, 64, [&](const json& dv, const std::string& at) {
        DeviceDescription d = parseDevice(dv, at, true);
        if (d.slot < 0 || d.slot > r.max_devices) fail(at + ".slot", "outside the receiver");
        if (d.paired && d.slot != 0 && !slots.insert(d.slot).second) fail(at + ".slot", "taken");
        r.devices.push_back(std::move(d));
    });
    return r;
}

}  // namespace

bool receiverProduct(std::uint16_t pid, int& max_devices, Byte& protocol_byte) {
    struct Product {
        std::uint16_t pid;
        int max_devices;
        Byte protocol_byte;
    };
    static const Product kProducts[] = {{0xA101, 6, 4},  {0xA102, 2, 4},  {0xA103, 2, 10},
                                        {0xA104, 1, 12}, {0xA105, 7, 12}, {0xA106, 1, 12},
                                        {0xA107, 1, 13}, {0xA108, 1, 4}};
    for (const Product& p : kProducts) {
        if (p.pid == pid) {
            max_devices = p.max_devices;
            protocol_byte = p.protocol_byte;
            return true;
        }
    }
    return false;
}

MachineDescription parseMachine(const std::string& json_text) {
    json root;
    try {
        root = json::parse(json_text);
    } catch (const json::exception& e) {
        fail("machine", std::string("not JSON: ") + e.what());
    }
    if (!root.is_object()) fail("machine", "expected an object");
    MachineDescription m;
    std::set<std::string> ids;
    auto unique = [&ids](const std::string& id, const std::string& where) {
        if (id.empty() || id.find_first_of(" \t\n") != std::string::npos) {
            fail(where, "an id is one word");
        }
        if (!ids.insert(id).second) fail(where, "id \"" + id + "\" used twice");
    };
    forEachIn(root, "devices", "machine", 256, [&](const json& v, const std::string& at) {
        m.devices.push_back(parseDevice(v, at, false));
        unique(m.devices.back().id, at);
    });
    forEachIn(root, "receivers", "machine", 64, [&](const json& v, const std::string& at) {
        m.receivers.push_back(parseReceiver(v, at));
        unique(m.receivers.back().id, at);
        for (const DeviceDescription& d : m.receivers.back().devices) unique(d.id, at);
    });
    return m;
}

Byte DeviceDescription::featureIndex(std::uint16_t feature_id) const {
    for (std::size_t i = 0; i < features.size(); ++i) {
        if (features[i].id == feature_id) return static_cast<Byte>(i + 1);
    }
    return 0;
}

}  // namespace devio_sim
