#pragma once

#include <cstddef>
#include <memory>

#include "Features/IFeature1F1FFirmwareProperty.h"

namespace devio {

// Feature 0x1F1F: the device's named firmware properties, numbered from 0.
// `LoadProperties` makes one property object per id and reads its name and
// description; the values then follow the device's change notifications.
// Every function but `GetCount` needs the device to echo the property's id,
// and fails without an error of its own when it does not; a null property
// fails the same way.
class IFeature1F1FFirmwareProperties {
public:
    // Events of the feature as a whole; a change of one property is told by
    // that property's own `Notification`.
    class Report {
    public:
        using Interface = IFeature1F1FFirmwareProperties;

    protected:
        ~Report() = default;
    };

    virtual ~IFeature1F1FFirmwareProperties() = default;

    virtual bool GetCount(unsigned* count) = 0;
    virtual bool GetPropertyInfo(IFeature1F1FFirmwareProperty* property) = 0;
    virtual bool GetPropertyName(IFeature1F1FFirmwareProperty* property) = 0;
    virtual bool GetPropertyValue(IFeature1F1FFirmwareProperty* property) = 0;
    // Writes the property's stored value; the answer's value is stored.
    virtual bool SetPropertyValue(IFeature1F1FFirmwareProperty* property) = 0;
    virtual bool SavePropertyCommand(IFeature1F1FFirmwareProperty* property) = 0;
    virtual bool ResetPropertyCommand(IFeature1F1FFirmwareProperty* property) = 0;
    // On a failure the properties read so far stay.
    virtual bool LoadProperties() = 0;
    virtual std::size_t PropertyCount() = 0;
    // Empty when `index` is out of range.
    virtual std::shared_ptr<IFeature1F1FFirmwareProperty> Property(std::size_t index) = 0;
};

class IFeatureForceInclusion1F1F {
public:
    IFeatureForceInclusion1F1F();
};
[[maybe_unused]] static const IFeatureForceInclusion1F1F featureForceInclusion1F1F;

}  // namespace devio
