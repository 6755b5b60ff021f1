#pragma once

namespace devio {

// Feature 0x1F1F: properties kept by the firmware.
class IFeature1F1FFirmwareProperty {
public:
    // One or more properties changed on the device.
    class Notification {
    public:
        using Interface = IFeature1F1FFirmwareProperty;
        struct Names {
            const char* onPropertyChanged;
        };
        virtual void onPropertyChanged() {}

    protected:
        ~Notification() = default;
    };

    virtual ~IFeature1F1FFirmwareProperty() = default;
};

namespace event_names {
inline constexpr IFeature1F1FFirmwareProperty::Notification::Names
    IFeature1F1FFirmwarePropertyNotification{
        "IFeature1F1FFirmwareProperty::Notification::onPropertyChanged"};
}  // namespace event_names

}  // namespace devio
