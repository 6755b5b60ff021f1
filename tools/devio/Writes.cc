// The writable things of a device: its friendly name and its firmware
// properties.

#include <charconv>
#include <cmath>
#include <iostream>

#include "Commands.h"
#include "DeviceFacts.h"
#include "ErrorText.h"
#include "Features/IFeature.h"
#include "Features/IFeature0007DeviceFriendlyName.h"
#include "Features/IFeature1F1FFirmwareProperties.h"
#include "Output.h"
#include "Render.h"
#include "Select.h"

namespace devio_tool {

using nlohmann::json;

namespace {

int fail(const std::string& what) {
    std::cerr << "devio: " << what << ": " << describe(lastFailure()) << "\n";
    return kFailed;
}

template <class Interface>
std::shared_ptr<Interface> need(devio::IDevice& device, unsigned id, const char* what) {
    devio::error_record() = devio::ErrorRecord{};
    auto f = std::dynamic_pointer_cast<Interface>(device.feature_by_id(id));
    if (!f) fail(device.path() + ": " + what);
    return f;
}

// The whole text must be the number; a float also takes 1e3 and the like.
template <class T>
bool parseNumber(const std::string& text, T& value) {
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    return ec == std::errc() && ptr == end;
}

std::shared_ptr<devio::IFeature1F1FFirmwareProperty> findProperty(
    devio::IFeature1F1FFirmwareProperties& props, const std::string& name) {
    for (std::size_t i = 0; i < props.PropertyCount(); ++i) {
        if (auto p = props.Property(i); p && DeviceFacts::propertyName(*p) == name) return p;
    }
    return nullptr;
}

}  // namespace

int friendlyName(const Options& options, const Devices& devices) {
    auto device = deviceArgument(devices, options.operands.at(0));
    if (!device) return kFailed;
    auto f = need<devio::IFeature0007DeviceFriendlyName>(*device, 0x0007, "no friendly name");
    if (!f) return kFailed;
    if (options.set_name && !f->SetFriendlyName(*options.set_name)) {
        return fail(device->path() + ": cannot set the name");
    }
    if (options.reset_name && !f->ResetFriendlyName()) {
        return fail(device->path() + ": cannot reset the name");
    }
    DeviceFacts facts(device);
    const json name = facts.friendlyName();
    if (name.is_null()) {
        std::cerr << "devio: " << device->path() << ": " << facts.errors().at(0).value("text", "")
                  << "\n";
        return kFailed;
    }
    print(options.json ? jsonLine(name) : renderFriendlyName(name));
    return kOk;
}

int property(const Options& options, const Devices& devices) {
    auto device = deviceArgument(devices, options.operands.at(0));
    if (!device) return kFailed;
    const std::string& name = options.operands.at(1);
    auto props =
        need<devio::IFeature1F1FFirmwareProperties>(*device, 0x1F1F, "no firmware properties");
    if (!props) return kFailed;
    const bool loaded = props->LoadProperties();
    auto p = findProperty(*props, name);
    if (!p) {
        if (!loaded) return fail(device->path() + ": cannot read the properties");
        std::cerr << "devio: " << device->path() << " has no property '" << name << "'; it has:";
        for (std::size_t i = 0; i < props->PropertyCount(); ++i) {
            if (auto q = props->Property(i)) std::cerr << " " << DeviceFacts::propertyName(*q);
        }
        std::cerr << "\n";
        return kFailed;
    }
    if (options.operands.size() == 3) {
        const std::string& text = options.operands[2];
        bool written = false;
        if (p->isInteger()) {
            std::int32_t value = 0;
            if (!parseNumber(text, value)) {
                std::cerr << "devio: '" << text << "' is not an integer\n";
                return kUsage;
            }
            written = p->setIntegerValue(value);
        } else if (p->isFloat()) {
            float value = 0;
            if (!parseNumber(text, value) || !std::isfinite(value)) {
                std::cerr << "devio: '" << text << "' is not a number\n";
                return kUsage;
            }
            written = p->setFloatValue(value);
        } else {
            std::cerr << "devio: property '" << name << "' has a type this tool cannot write\n";
            return kFailed;
        }
        if (!written) return fail(device->path() + ": cannot write '" + name + "'");
    }
    const json j = DeviceFacts::propertyJson(*p);
    print(options.json ? jsonLine(j) : renderProperty(j));
    return kOk;
}

}  // namespace devio_tool
