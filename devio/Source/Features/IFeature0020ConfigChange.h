#pragma once

#include <cstdint>

namespace devio {

// Feature 0x0020: the configuration cookie of a device. A host that
// configures the device writes a cookie; reading it back later tells
// whether the configuration is still the one it made.
class IFeature0020ConfigChange {
public:
    // Some software, identified by `swid`, set the cookie: the answer to
    // another program's write, seen on the shared link.
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

    // Never from the cache: another host may have written it since.
    virtual bool GetCookie(std::uint16_t* cookie) = 0;
    virtual bool SetCookie(std::uint16_t cookie) = 0;
};

namespace event_names {
inline constexpr IFeature0020ConfigChange::ConfigReport::Names Feature0020ConfigChangeConfigReport{
    "Feature0020ConfigChange::ConfigReport::onCookieSet"};
}  // namespace event_names

class IFeatureForceInclusion0020 {
public:
    IFeatureForceInclusion0020();
};
[[maybe_unused]] static const IFeatureForceInclusion0020 featureForceInclusion0020;

}  // namespace devio
