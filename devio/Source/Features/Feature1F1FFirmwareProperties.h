#pragma once

#include <mutex>
#include <vector>

#include "Base/Producer.h"
#include "Features/Feature.h"
#include "Features/IFeature1F1FFirmwareProperties.h"

namespace devio {

// The firmware properties and their commands. It owns one property object
// per id, made by `LoadProperties`, and hands the device's change
// notifications to them.
//
// Threads: commands on the caller's thread; `onFeatureReport` on the
// device's read thread. `propertiesMutex` guards the list of properties
// and is held only to look at it, never during a command or an event.
class Feature1F1FFirmwareProperties : public Feature,
                                      public IFeature1F1FFirmwareProperties,
                                      public Producer<IFeature1F1FFirmwareProperties::Report> {
public:
    static constexpr std::uint32_t kId = 0x1F1F;

    Feature1F1FFirmwareProperties(Byte index, const std::shared_ptr<IDevice>& device);

    bool GetCount(unsigned* count) override;
    bool GetPropertyInfo(IFeature1F1FFirmwareProperty* property) override;
    bool GetPropertyName(IFeature1F1FFirmwareProperty* property) override;
    bool GetPropertyValue(IFeature1F1FFirmwareProperty* property) override;
    bool SetPropertyValue(IFeature1F1FFirmwareProperty* property) override;
    bool SavePropertyCommand(IFeature1F1FFirmwareProperty* property) override;
    bool ResetPropertyCommand(IFeature1F1FFirmwareProperty* property) override;
    bool LoadProperties() override;
    std::size_t PropertyCount() override;
    std::shared_ptr<IFeature1F1FFirmwareProperty> Property(std::size_t index) override;

protected:
    void onFeatureReport(int function, const std::vector<Byte>& params) override;

private:
    // One command about `property`; the answer must be whole and carry the
    // property's id first.
    bool propertyCommand(unsigned function, IFeature1F1FFirmwareProperty* property,
                         const std::vector<Byte>& params, std::vector<Byte>& answer);

    std::mutex propertiesMutex;
    std::vector<std::shared_ptr<IFeature1F1FFirmwareProperty>> properties;
};

}  // namespace devio
