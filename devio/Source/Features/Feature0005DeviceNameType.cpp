// Device name and type: the name's length (function 0), one chunk of the
// name (function 1), the type byte (function 2).

#include "Features/Feature0005DeviceNameType.h"

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Features/FeatureRegistry.h"

namespace devio {

namespace {
constexpr unsigned kGetCount = 0;
constexpr unsigned kGetDeviceName = 1;
constexpr unsigned kGetDeviceType = 2;
constexpr int kCached = 1;

const FeatureRegistrar registrar(Feature0005DeviceNameType::kId,
                                 &makeFeature<Feature0005DeviceNameType>);
std::atomic<bool> included{false};
}  // namespace

IFeatureForceInclusion0005::IFeatureForceInclusion0005() {
    noteFeatureIncluded(included, "Feature0005DeviceNameType",
                        "devio::IFeatureForceInclusion0005::IFeatureForceInclusion0005",
                        "Devio: Feature0005 included");
}

Feature0005DeviceNameType::Feature0005DeviceNameType(Byte featureIndex,
                                                     const std::shared_ptr<IDevice>& owner)
    : Feature(kId, featureIndex, owner) {}

bool Feature0005DeviceNameType::GetCount(unsigned* count) {
    std::vector<Byte> a;
    if (!sendSynchronousFeatureCommand(kGetCount, {}, a, kCached)) return false;
    if (a.empty()) {
        set_error(CommandResponseTooShort);
        return false;
    }
    if (count != nullptr) *count = a[0];
    DEVIO_LOG("Feature0005DeviceNameType", 2, "GetCount",
              "Feature0005DeviceNameType::GetCount(*count = %d)", a[0]);
    return true;
}

bool Feature0005DeviceNameType::GetDeviceName(Byte charIndex, std::vector<Byte>* chunk) {
    std::vector<Byte> a;
    if (!sendSynchronousFeatureCommand(kGetDeviceName, {charIndex}, a, kCached)) return false;
    if (chunk != nullptr) *chunk = std::move(a);
    return true;
}

bool Feature0005DeviceNameType::GetDeviceName(std::string* out) {
    std::lock_guard<std::mutex> lock(nameMutex);
    if (!nameRead) {
        unsigned count = 0;
        if (!GetCount(&count)) return false;
        // The field is not emptied first: a repeated reading appends the same
        // bytes and the cut below takes it back to the first one.
        std::size_t offset = 0;
        while (offset < count) {
            std::vector<Byte> chunk;
            if (!GetDeviceName(static_cast<Byte>(offset), &chunk)) return false;
            if (chunk.empty()) {
                set_error(EmptyName);
                return false;
            }
            name.append(chunk.begin(), chunk.end());
            offset += chunk.size();
        }
        // The last chunk comes padded to the report's length.
        name.resize(count);
    }
    if (out != nullptr && out != &name) *out = name;
    DEVIO_LOG("Feature0005DeviceNameType", 2, "GetDeviceName",
              "Feature0005DeviceNameType::GetDeviceName(*name = %s)", name.c_str());
    return true;
}

bool Feature0005DeviceNameType::GetDeviceType(Byte* type) {
    std::vector<Byte> a;
    if (!sendSynchronousFeatureCommand(kGetDeviceType, {}, a, kCached)) return false;
    if (a.empty()) {
        set_error(CommandResponseTooShort);
        return false;
    }
    if (type != nullptr) *type = a[0];
    DEVIO_LOG("Feature0005DeviceNameType", 2, "GetDeviceType",
              "Feature0005DeviceNameType::GetDeviceType(*type = %d)", a[0]);
    return true;
}

bool Feature0005DeviceNameType::GetDeviceType(std::uint32_t* type) {
    if (type == nullptr) {
        set_error(InternalError, "GetDeviceType needs an out-parameter");
        return false;
    }
    Byte narrow = 0;
    if (!GetDeviceType(&narrow)) return false;
    *type = narrow;
    return true;
}

}  // namespace devio
