#include "DeviceFacts.h"

#include <array>
#include <functional>

#include "ErrorText.h"
#include "Features/IFeature.h"
#include "Features/IFeature0000Root.h"
#include "Features/IFeature0003FirmwareInfo.h"
#include "Features/IFeature0005DeviceNameType.h"
#include "Features/IFeature0007DeviceFriendlyName.h"
#include "Features/IFeature1000BatteryUnifiedLevelStatus.h"
#include "Features/IFeature1F1FFirmwareProperties.h"

namespace devio_tool {

using nlohmann::json;

namespace {

// Failures after which the device is not asked again: it does not answer,
// or it is gone.
bool deviceUnreachable(devio::ErrorCode err) {
    switch (err) {
        case devio::NoResponse:
        case devio::NotConnected:
        case devio::DeviceRemoved:
        case devio::WriteTimeout:
        case devio::WriteError:
        case devio::Abandoned:
            return true;
        default:
            return false;
    }
}

// A friendly name comes with its last chunk whole: the text ends at the
// first zero byte or at the length the device gave, whichever comes first.
std::string nameText(std::string name, std::size_t length) {
    if (const auto nul = name.find('\0'); nul != std::string::npos) name.resize(nul);
    if (name.size() > length) name.resize(length);
    return name;
}

}  // namespace

const char* busName(int bustype) {
    static constexpr std::array<const char*, 5> kNames{"corded", "receiver", "bluetooth", "ble",
                                                       "gatt"};
    if (bustype < 0 || static_cast<std::size_t>(bustype) >= kNames.size()) return "unknown";
    return kNames[static_cast<std::size_t>(bustype)];
}

const char* deviceTypeName(unsigned type) {
    static constexpr std::array<const char*, 13> kNames{
        "keyboard", "remote",  "numpad", "mouse",    "touch",    "track",  "present",
        "receiver", "headset", "webcam", "steering", "joystick", "gamepad"};
    return type < kNames.size() ? kNames[type] : "";
}

DeviceFacts::DeviceFacts(std::shared_ptr<devio::IDevice> device) : device_(std::move(device)) {}

json DeviceFacts::identity(devio::IDevice& device) {
    return json{{"path", device.path()},
                {"bustype", device.bustype()},
                {"bus", busName(device.bustype())},
                {"pid", device.pid()},
                {"product", device.name()}};
}

void DeviceFacts::failed(const char* what) {
    const Failure f = lastFailure();
    errors_.push_back(
        json{{"what", what}, {"code", f.err}, {"name", errorName(f.err)}, {"text", describe(f)}});
    if (deviceUnreachable(f.err)) silent_ = true;
    // The feature objects in hand belong to the old firmware: stop, and let
    // the caller start again on the new one.
    if (f.err == devio::FwVersionChanged) silent_ = firmware_changed_ = true;
}

template <class Interface>
std::shared_ptr<Interface> DeviceFacts::feature(unsigned id, const char* what) {
    if (silent_) return nullptr;
    devio::error_record() = devio::ErrorRecord{};
    std::shared_ptr<devio::IFeature> f = device_->feature_by_id(id);
    if (!f) {
        // Lacking a feature is no failure: the fact is just not there. A
        // device that does not speak VXP 2.0 has no features at all.
        const devio::ErrorCode err = devio::error_record().err;
        if (err == devio::NotVxp20) {
            vxp20_ = false;
            silent_ = true;
        } else if (err != devio::NotPresent) {
            failed(what);
        }
        return nullptr;
    }
    return std::dynamic_pointer_cast<Interface>(f);
}

json DeviceFacts::summary(bool full) {
    return again([&] { return summaryOnce(full); });
}

json DeviceFacts::summaryOnce(bool full) {
    json j = identity(*device_);
    j["connected"] = device_->connected();
    if (auto names = feature<devio::IFeature0005DeviceNameType>(0x0005, "name")) {
        std::string name;
        if (names->GetDeviceName(&name)) {
            j["name"] = name;
        } else {
            failed("name");
        }
        std::uint32_t type = 0;
        if (!silent_ && names->GetDeviceType(&type)) {
            j["type_id"] = type;
            j["type"] = deviceTypeName(type);
        } else if (!silent_) {
            failed("type");
        }
    }
    if (json b = battery(full); !b.is_null()) j["battery"] = b;
    if (auto info = feature<devio::IFeature0003FirmwareInfo>(0x0003, "firmware")) {
        std::string version;
        if (info->GetMainFwVersion(&version)) {
            j["firmware"] = version;
        } else if (devio::error_record().err != devio::Success) {
            failed("firmware");
        }
    }
    j["vxp20"] = vxp20_;
    j["errors"] = errors_;
    return j;
}

json DeviceFacts::battery(bool with_capability) {
    auto b = feature<devio::IFeature1000BatteryUnifiedLevelStatus>(0x1000, "battery");
    if (!b) return nullptr;
    std::uint16_t level = 0, next = 0, status = 0;
    if (!b->GetBatteryLevelStatus(&level, &next, &status)) {
        failed("battery");
        return nullptr;
    }
    json j{{"level", level}, {"next_level", next}, {"status", status}};
    std::uint16_t levels = 0, flags = 0;
    std::uint32_t life = 0, critical = 0;
    if (!with_capability) return j;
    if (b->GetBatteryCapability(&levels, &flags, &life, &critical)) {
        j["levels"] = levels;
        j["flags"] = flags;
        j["nominal_life"] = life;
        j["critical_level"] = critical;
    } else {
        failed("battery capability");
    }
    return j;
}

json DeviceFacts::friendlyName() {
    auto f = feature<devio::IFeature0007DeviceFriendlyName>(0x0007, "friendly name");
    if (!f) return nullptr;
    std::uint16_t length = 0, max_length = 0, default_length = 0;
    std::string name, default_name;
    if (!f->GetFriendlyNameLen(&length, &max_length, &default_length) ||
        !f->GetFriendlyName(&name) || !f->GetDefaultFriendlyName(&default_name)) {
        failed("friendly name");
        return nullptr;
    }
    return json{{"name", nameText(name, length)},
                {"default", nameText(default_name, default_length)},
                {"max_length", max_length}};
}

json DeviceFacts::firmware() {
    auto info = feature<devio::IFeature0003FirmwareInfo>(0x0003, "firmware");
    if (!info) return nullptr;
    std::uint32_t count = 0, unit = 0, transport = 0, pid1 = 0, pid2 = 0, pid3 = 0, extended = 0;
    if (!info->GetEntityCount(&count, &unit, &transport, &pid1, &pid2, &pid3, &extended, true)) {
        failed("firmware");
        return nullptr;
    }
    json entities = json::array();
    for (unsigned e = 0; e < count; ++e) {
        std::uint32_t type = 0, rdnf = 0;
        std::string prefix, version, build;
        if (!info->GetFwInfo(e, &type, &prefix, &version, &build, &rdnf, nullptr, true)) {
            failed("firmware entity");
            break;
        }
        entities.push_back(json{{"index", e},
                                {"type", type},
                                {"prefix", prefix},
                                {"version", version},
                                {"build", build},
                                {"running", (rdnf & 1) != 0}});
    }
    return json{{"unit_id", unit},
                {"transport", transport},
                {"model_ids", {pid1, pid2, pid3}},
                {"extended_model_id", extended},
                {"entities", entities}};
}

std::string DeviceFacts::propertyName(devio::IFeature1F1FFirmwareProperty& p) {
    // The name comes in a whole report, padded with zero bytes.
    return nameText(p.name(), std::string::npos);
}

json DeviceFacts::propertyJson(devio::IFeature1F1FFirmwareProperty& p) {
    json j{{"id", p.id()},
           {"name", propertyName(p)},
           {"size", p.size()},
           {"flag_a", p.flagA()},
           {"flag_b", p.flagB()}};
    if (p.isInteger()) {
        j["type"] = "int";
        j["value"] = p.integerValue();
        j["min"] = p.integerMinimum();
        j["max"] = p.integerMaximum();
    } else if (p.isFloat()) {
        j["type"] = "float";
        j["value"] = p.floatValue();
        j["min"] = p.floatMinimum();
        j["max"] = p.floatMaximum();
    } else {
        j["type"] = "unknown";
    }
    return j;
}

json DeviceFacts::properties() {
    auto f = feature<devio::IFeature1F1FFirmwareProperties>(0x1F1F, "properties");
    if (!f) return json::array();
    // The properties read before a failure are still shown.
    if (!f->LoadProperties()) failed("properties");
    json list = json::array();
    for (std::size_t i = 0; i < f->PropertyCount(); ++i) {
        auto p = f->Property(i);
        if (!p) continue;
        list.push_back(propertyJson(*p));
    }
    return list;
}

json DeviceFacts::featureTable() {
    json table = json::array();
    if (silent_) return table;
    devio::error_record() = devio::ErrorRecord{};
    const auto features = device_->features();
    if (features.empty() && devio::error_record().err != devio::Success) failed("features");
    for (const auto& f : features) {
        table.push_back(json{{"index", f->featureIndex()},
                             {"id", f->featureId()},
                             {"version", f->featureVersion()},
                             {"obsolete", f->isObsolete()},
                             {"hidden", f->isHidden()},
                             {"engineering", f->isEngineeringHidden()}});
    }
    return table;
}

json DeviceFacts::again(const std::function<json()>& gather) {
    json j = gather();
    if (!firmware_changed_) return j;
    // The library found new firmware and forgot the old features; the next
    // calls discover the new ones.
    errors_ = json::array();
    silent_ = firmware_changed_ = false;
    return gather();
}

json DeviceFacts::details() {
    return again([&] { return detailsOnce(); });
}

json DeviceFacts::detailsOnce() {
    json j = summaryOnce(true);
    if (json n = friendlyName(); !n.is_null()) j["friendly_name"] = n;
    if (auto root = feature<devio::IFeature0000Root>(0x0000, "protocol")) {
        unsigned protocol = 0, target = 0;
        if (root->TargetSw(&protocol, &target)) {
            j["protocol"] = json{{"version", protocol}, {"target_sw", target}};
        } else {
            failed("protocol");
        }
    }
    if (json fw = firmware(); !fw.is_null()) j["firmware_info"] = fw;
    j["properties"] = properties();
    j["features"] = featureTable();
    bool wireless = false;
    for (const auto& f : j["features"]) wireless = wireless || f["id"] == 0x1D4B;
    j["wireless_status"] = wireless;
    j["vxp20"] = vxp20_;
    j["errors"] = errors_;
    return j;
}

}  // namespace devio_tool
