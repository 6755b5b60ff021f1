// Firmware properties: count (function 0), a property's description (1),
// name (2) and value (3), writing a value (4), and the device's save (5)
// and reset (6) of one property.

#include "Features/Feature1F1FFirmwareProperties.h"

#include <cstdio>
#include <sstream>

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Features/Feature1F1FFirmwareProperty.h"
#include "Features/FeatureRegistry.h"

namespace devio {

namespace {
constexpr unsigned kGetCount = 0;
constexpr unsigned kGetPropertyInfo = 1;
constexpr unsigned kGetPropertyName = 2;
constexpr unsigned kGetPropertyValue = 3;
constexpr unsigned kSetPropertyValue = 4;
constexpr unsigned kSavePropertyCommand = 5;
constexpr unsigned kResetPropertyCommand = 6;
constexpr int kUncached = 0;
constexpr std::size_t kAnswerSize = 16;
// A write is a list of (id, value size, value) entries, and a change
// notification one of (id, unused byte, value) entries; either ends at
// this id. Requests that carry no value put it where the size would be.
constexpr Byte kListEnd = 0xFF;
constexpr Byte kNoValue = 0xFF;
constexpr Byte kValueSize = 4;
constexpr std::size_t kValueAt = 2;
constexpr std::size_t kValueEnd = kValueAt + kValueSize;
constexpr std::size_t kEntryHeader = 2;
constexpr std::size_t kInfoAt = 3;

const FeatureRegistrar registrar(Feature1F1FFirmwareProperties::kId,
                                 &makeFeature<Feature1F1FFirmwareProperties>);
std::atomic<bool> included{false};

Byte idByte(IFeature1F1FFirmwareProperty* property) {
    return static_cast<Byte>(property->id());
}
}  // namespace

IFeatureForceInclusion1F1F::IFeatureForceInclusion1F1F() {
    noteFeatureIncluded(included, "Feature1F1FFirmwareProperties",
                        "devio::IFeatureForceInclusion1F1F::IFeatureForceInclusion1F1F",
                        "Devio: Feature1F1F included");
}

Feature1F1FFirmwareProperties::Feature1F1FFirmwareProperties(Byte featureIndex,
                                                             const std::shared_ptr<IDevice>& owner)
    : Feature(kId, featureIndex, owner) {}

bool Feature1F1FFirmwareProperties::GetCount(unsigned* count) {
    std::vector<Byte> a;
    if (!sendSynchronousFeatureCommand(kGetCount, {}, a, kUncached)) return false;
    if (a.empty()) {
        set_error(CommandResponseTooShort);
        return false;
    }
    if (count != nullptr) *count = a[0];
    DEVIO_LOG("Feature1F1FFirmwareProperties", 2, "GetCount",
              "Feature1F1FFirmwareProperties::GetCount(*count = %d)", a[0]);
    return true;
}

bool Feature1F1FFirmwareProperties::propertyCommand(unsigned function,
                                                    IFeature1F1FFirmwareProperty* property,
                                                    const std::vector<Byte>& params,
                                                    std::vector<Byte>& answer) {
    if (property == nullptr) return false;
    if (!sendSynchronousFeatureCommand(function, params, answer, kUncached)) return false;
    if (answer.size() < kAnswerSize) {
        set_error(CommandResponseTooShort);
        return false;
    }
    // An answer about another property is no answer to this command.
    return answer[0] == property->id();
}

bool Feature1F1FFirmwareProperties::GetPropertyInfo(IFeature1F1FFirmwareProperty* property) {
    std::vector<Byte> a;
    if (property == nullptr || !propertyCommand(kGetPropertyInfo, property, {idByte(property)}, a))
        return false;
    const Byte type = a[1];
    const Byte flags = a[2];
    property->SetInfo((flags & 0x02) != 0, (type & 0x80) != 0, (flags & 0x01) != 0, type);
    property->ParseInfo(std::vector<Byte>(a.begin() + kInfoAt, a.end()));
    return true;
}

bool Feature1F1FFirmwareProperties::GetPropertyName(IFeature1F1FFirmwareProperty* property) {
    std::vector<Byte> a;
    if (property == nullptr || !propertyCommand(kGetPropertyName, property, {idByte(property)}, a))
        return false;
    // The name is the answer as it stands, the zero bytes that pad it
    // included; the device gives no length.
    std::ostringstream text;
    for (auto it = a.begin() + 1; it != a.end(); ++it) text << static_cast<char>(*it);
    property->setName(text.str());
    return true;
}

bool Feature1F1FFirmwareProperties::GetPropertyValue(IFeature1F1FFirmwareProperty* property) {
    std::vector<Byte> a;
    if (property == nullptr ||
        !propertyCommand(kGetPropertyValue, property, {idByte(property), kNoValue}, a))
        return false;
    property->ReadValue(a, kValueAt);
    return true;
}

bool Feature1F1FFirmwareProperties::SetPropertyValue(IFeature1F1FFirmwareProperty* property) {
    if (property == nullptr) return false;
    std::vector<Byte> request(kAnswerSize, 0);
    request[0] = idByte(property);
    request[1] = kValueSize;
    property->WriteValue(request, kValueAt);
    request[kValueEnd] = kListEnd;
    std::vector<Byte> a;
    if (!propertyCommand(kSetPropertyValue, property, request, a)) return false;
    // The device may have clamped the value: keep what it took.
    property->ReadValue(a, kValueAt);
    return true;
}

bool Feature1F1FFirmwareProperties::SavePropertyCommand(IFeature1F1FFirmwareProperty* property) {
    std::vector<Byte> a;
    return property != nullptr &&
           propertyCommand(kSavePropertyCommand, property, {idByte(property), kNoValue}, a);
}

bool Feature1F1FFirmwareProperties::ResetPropertyCommand(IFeature1F1FFirmwareProperty* property) {
    std::vector<Byte> a;
    return property != nullptr &&
           propertyCommand(kResetPropertyCommand, property, {idByte(property), kNoValue}, a);
}

bool Feature1F1FFirmwareProperties::LoadProperties() {
    unsigned count = 0;
    if (!GetCount(&count)) return false;
    std::printf("props: %d\n", static_cast<int>(count));
    {
        std::lock_guard<std::mutex> lock(propertiesMutex);
        properties.resize(count);
    }
    for (unsigned propertyId = 0; propertyId < count; ++propertyId) {
        auto property =
            std::make_shared<Feature1F1FFirmwareProperty>(this, propertyId, weak_from_this());
        {
            std::lock_guard<std::mutex> lock(propertiesMutex);
            if (propertyId < properties.size()) properties[propertyId] = property;
        }
        if (!GetPropertyName(property.get()) || !GetPropertyInfo(property.get())) return false;
    }
    return true;
}

std::size_t Feature1F1FFirmwareProperties::PropertyCount() {
    std::lock_guard<std::mutex> lock(propertiesMutex);
    return properties.size();
}

std::shared_ptr<IFeature1F1FFirmwareProperty> Feature1F1FFirmwareProperties::Property(
    std::size_t at) {
    std::lock_guard<std::mutex> lock(propertiesMutex);
    return at < properties.size() ? properties[at] : nullptr;
}

void Feature1F1FFirmwareProperties::onFeatureReport(int function, const std::vector<Byte>& params) {
    if (function != 0 || params.empty()) return;
    std::size_t position = 0;
    while (position < params.size()) {
        const Byte propertyId = params[position];
        if (propertyId == kListEnd) break;
        auto property = Property(propertyId);
        if (!property) break;
        property->ReadValue(params, position + kEntryHeader);
        property->NotifyChanged();
        position += property->size() + kEntryHeader;
    }
}

}  // namespace devio
