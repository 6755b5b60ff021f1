// The `vant` section: what the maker's devices that the library finds are,
// which firmware they run and how full their batteries are.
//
// Results of feature calls are deliberately not checked: a failed call
// leaves its output at the initial value, so a device that stops answering
// halfway still yields an entry, with zeros and empty texts where answers
// are missing. A device that is slow to answer delays the upload by the
// library's own time-outs; there is none at this level.

#include <cstdio>
#include <iterator>
#include <memory>
#include <string>

#include "Base/ErrorRecord.h"
#include "Device/IDevice.h"
#include "Features/IFeature.h"
#include "Features/IFeature0003FirmwareInfo.h"
#include "Features/IFeature0005DeviceNameType.h"
#include "Features/IFeature1000BatteryUnifiedLevelStatus.h"
#include "Manager/CDevio.h"
#include "header_sections.h"

namespace qv::inventory {

namespace {

using nlohmann::json;

// Configuration items of the library that let devices through: corded,
// receivers (with what is paired to them), classic Bluetooth. BLE stays off.
constexpr unsigned kCordedActive = 5;
constexpr unsigned kReceiversActive = 4;
constexpr unsigned kBluetoothActive = 0;

constexpr unsigned kNameTypeFeature = 0x0005;
constexpr unsigned kBatteryFeature = 0x1000;
constexpr unsigned kFirmwareInfoFeature = 0x0003;

const char* const kDeviceTypeWords[] = {"keyboard", "remote",   "numpad",   "mouse",   "touch",
                                        "track",    "present",  "receiver", "headset", "webcam",
                                        "steering", "joystick", "gamepad"};

// A code beyond the table would read past it; the server gets the code as
// decimal text instead, which no word can be confused with.
std::string deviceTypeWord(devio::Byte code) {
    if (code < std::size(kDeviceTypeWords)) return kDeviceTypeWords[code];
    return std::to_string(code);
}

std::string productIdText(std::uint32_t pid) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", pid);
    return text;
}

// The device's feature `id` as the interface that belongs to it; empty when
// the device lacks it, or (with the error record set) when the object is not
// of that interface.
template <typename Interface>
std::shared_ptr<Interface> featureAs(const std::shared_ptr<devio::IDevice>& device, unsigned id) {
    std::shared_ptr<devio::IFeature> feature = device->feature_by_id(id);
    if (!feature) return nullptr;
    auto typed = std::dynamic_pointer_cast<Interface>(feature);
    if (!typed) devio::set_error(devio::InternalError, "cannot cast feature to proper type");
    return typed;
}

void addNameAndType(const std::shared_ptr<devio::IDevice>& device, json& entry) {
    auto feature = featureAs<devio::IFeature0005DeviceNameType>(device, kNameTypeFeature);
    if (!feature) return;
    std::string name;
    feature->GetDeviceName(&name);
    entry["devname"] = name;
    devio::Byte type = 0;
    feature->GetDeviceType(&type);
    entry["devtype"] = deviceTypeWord(type);
}

void addBattery(const std::shared_ptr<devio::IDevice>& device, json& entry) {
    auto feature = featureAs<devio::IFeature1000BatteryUnifiedLevelStatus>(device, kBatteryFeature);
    if (!feature) return;
    std::uint16_t level = 0;
    feature->GetBatteryLevelStatus(&level, nullptr, nullptr);
    entry["battery"] = static_cast<int>(level);
}

void addFirmware(const std::shared_ptr<devio::IDevice>& device, json& entry) {
    auto feature = featureAs<devio::IFeature0003FirmwareInfo>(device, kFirmwareInfoFeature);
    if (!feature) return;
    std::uint32_t count = 0, unitId = 0, transport = 0, pid1 = 0, pid2 = 0, pid3 = 0, extid = 0;
    feature->GetEntityCount(&count, &unitId, &transport, &pid1, &pid2, &pid3, &extid, true);
    // Asked only to fill the feature's cache of answers for later readers.
    std::string mainVersion;
    std::uint32_t model = 0, extendedModel = 0;
    feature->GetMainFwVersion(&mainVersion);
    feature->GetModelId(&model);
    feature->GetExtendedModelId(&extendedModel, true);

    entry["transport"] = transport;
    entry["pid1"] = productIdText(pid1);
    entry["pid2"] = productIdText(pid2);
    entry["pid3"] = productIdText(pid3);
    entry["extid"] = extid;
    json firmware = json::array();
    for (std::uint32_t entity = 0; entity < count; ++entity) {
        std::uint32_t type = 0, rdnf = 0;
        std::string prefix, version, build;
        feature->GetFwInfo(entity, &type, &prefix, &version, &build, &rdnf, nullptr, true);
        firmware.push_back({{"type", static_cast<std::int64_t>(type)},
                            {"prefix", prefix},
                            {"version", version},
                            {"build", build},
                            {"rdnf", rdnf}});
    }
    entry["fws"] = std::move(firmware);
}

json describe(const std::shared_ptr<devio::IDevice>& device) {
    json entry = json::object();
    entry["name"] = device->name();
    entry["bustype"] = static_cast<unsigned>(device->bustype());
    entry["busport"] = static_cast<unsigned>(device->busport());
    const bool connected = device->connected();
    entry["connected"] = connected;
    if (!connected) return entry;
    addNameAndType(device, entry);
    addBattery(device, entry);
    addFirmware(device, entry);
    return entry;
}

}  // namespace

void addDeviceInventory(json& header) {
    devio::cdevio.config_set(kCordedActive, true);
    devio::cdevio.config_set(kReceiversActive, true);
    devio::cdevio.config_set(kBluetoothActive, true);
    // Whatever the library lists, whichever bus it came from: devices behind
    // a receiver appear here as soon as the library produces them.
    const auto devices = devio::cdevio.devices();
    json list = json::array();
    for (const auto& device : devices) {
        if (device) list.push_back(describe(device));
    }
    header["vant"] = {{"a", std::move(list)}};
}

}  // namespace qv::inventory
