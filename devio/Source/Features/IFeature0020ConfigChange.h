#pragma once

namespace devio {

// Feature 0x0020: the configuration cookie of a device.
class IFeature0020ConfigChange {
public:
    // Some software, identified by `swid`, set the cookie.
    class ConfigReport {
    public:
        using Interface = IFeature0020ConfigChange;
        struct Names {
            const char* onCookieSet;
        };
        virtual void onCookieSet(unsigned /*swid*/, unsigned short /*cookie*/) {}

    protected:
        ~ConfigReport() = default;
    };

    virtual ~IFeature0020ConfigChange() = default;
};

namespace event_names {
inline constexpr IFeature0020ConfigChange::ConfigReport::Names Feature0020ConfigChangeConfigReport{
    "Feature0020ConfigChange::ConfigReport::onCookieSet"};
}  // namespace event_names

}  // namespace devio
