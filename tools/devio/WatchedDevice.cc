#include "WatchedDevice.h"

#include <chrono>
#include <cstdio>
#include <ctime>

#include "DeviceFacts.h"
#include "Features/IFeature.h"

namespace devio_tool {

using nlohmann::json;

namespace {

// UTC with microseconds, as in 2026-11-24T12:40:45.123456Z.
std::string now() {
    const auto t = std::chrono::system_clock::now().time_since_epoch();
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(t).count();
    const std::time_t seconds = static_cast<std::time_t>(us / 1000000);
    std::tm tm{};
    ::gmtime_r(&seconds, &tm);
    char text[40];
    const std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
    std::snprintf(text + n, sizeof text - n, ".%06lldZ", static_cast<long long>(us % 1000000));
    return text;
}

template <class Interface>
std::shared_ptr<Interface> featureOf(devio::IDevice& device, unsigned id) {
    return std::dynamic_pointer_cast<Interface>(device.feature_by_id(id));
}

json propertyValue(devio::IFeature1F1FFirmwareProperty& p) {
    if (p.isInteger()) return p.integerValue();
    if (p.isFloat()) return p.floatValue();
    return nullptr;
}

}  // namespace

// One firmware property: its change notification names only itself.
class WatchedDevice::Property
    : public devio::Subscriber<devio::IFeature1F1FFirmwareProperty::Notification> {
public:
    Property(WatchedDevice& owner, std::shared_ptr<devio::IFeature1F1FFirmwareProperty> p)
        : owner_(owner), property_(std::move(p)) {}
    bool follow() { return subscribe(property_, devio::DeliveryRunLoop); }
    void onPropertyChanged() override {
        owner_.event("property", json{{"property", DeviceFacts::propertyName(*property_)},
                                      {"value", propertyValue(*property_)}});
    }

private:
    WatchedDevice& owner_;
    std::shared_ptr<devio::IFeature1F1FFirmwareProperty> property_;
};

WatchedDevice::WatchedDevice(std::shared_ptr<devio::IDevice> device, Emit emit)
    : device_(std::move(device)), path_(device_->path()), emit_(std::move(emit)) {}

WatchedDevice::~WatchedDevice() {
    dropFeatures();
}

void WatchedDevice::event(const char* name, json fields) {
    fields["time"] = now();
    fields["event"] = name;
    fields["path"] = path_;
    emit_(fields);
}

void WatchedDevice::announce() {
    // Followed first, then told: once the arrival is printed, no change of
    // the device goes unseen.
    Subscriber<devio::IDevice::Connect>::subscribe(device_, devio::DeliveryRunLoop);
    Subscriber<devio::IDevice::ConfigChange>::subscribe(device_, devio::DeliveryRunLoop);
    followFeatures();
    json j = DeviceFacts::identity(*device_);
    j.erase("path");
    j["connected"] = device_->connected();
    event("arrival", j);
}

void WatchedDevice::removed() {
    event("removal");
}

void WatchedDevice::dropFeatures() {
    properties_.clear();
    props_.reset();
    if (cookie_) Subscriber<devio::IFeature0020ConfigChange::ConfigReport>::unsubscribe(cookie_);
    if (battery_) {
        Subscriber<devio::IFeature1000BatteryUnifiedLevelStatus::Report>::unsubscribe(battery_);
    }
    if (wireless_) Subscriber<devio::IFeature1D4BWirelessStatus::Report>::unsubscribe(wireless_);
    cookie_.reset();
    battery_.reset();
    wireless_.reset();
}

void WatchedDevice::followFeatures() {
    cookie_ = featureOf<devio::IFeature0020ConfigChange>(*device_, 0x0020);
    if (cookie_) {
        Subscriber<devio::IFeature0020ConfigChange::ConfigReport>::subscribe(
            cookie_, devio::DeliveryRunLoop);
    }
    battery_ = featureOf<devio::IFeature1000BatteryUnifiedLevelStatus>(*device_, 0x1000);
    if (battery_) {
        Subscriber<devio::IFeature1000BatteryUnifiedLevelStatus::Report>::subscribe(
            battery_, devio::DeliveryRunLoop);
    }
    wireless_ = featureOf<devio::IFeature1D4BWirelessStatus>(*device_, 0x1D4B);
    if (wireless_) {
        Subscriber<devio::IFeature1D4BWirelessStatus::Report>::subscribe(wireless_,
                                                                         devio::DeliveryRunLoop);
    }
    if (auto props = featureOf<devio::IFeature1F1FFirmwareProperties>(*device_, 0x1F1F)) {
        // A failure keeps the properties read so far. Each property object
        // belongs to the feature; holding the property keeps it usable.
        props->LoadProperties();
        for (std::size_t i = 0; i < props->PropertyCount(); ++i) {
            if (auto p = props->Property(i)) {
                properties_.push_back(std::make_unique<Property>(*this, p));
                properties_.back()->follow();
            }
        }
        props_ = props;
    }
}

void WatchedDevice::onConnect(const std::shared_ptr<devio::IDevice>&, bool configured) {
    event("connect", json{{"configured", configured}});
}

void WatchedDevice::onDisconnect(const std::shared_ptr<devio::IDevice>&) {
    event("disconnect");
}

void WatchedDevice::onFirmwareChanged(const std::shared_ptr<devio::IDevice>&) {
    event("firmware");
    // The device forgot its features; their new objects are found afresh.
    dropFeatures();
    followFeatures();
}

void WatchedDevice::onConfigChange() {
    event("config");
}

void WatchedDevice::onCookieSet(unsigned swid, unsigned short cookie) {
    event("cookie", json{{"swid", swid}, {"cookie", cookie}});
}

void WatchedDevice::onBatteryLevelStatus(short level, short next_level, short status) {
    event("battery", json{{"level", level}, {"next_level", next_level}, {"status", status}});
}

void WatchedDevice::onWirelessStatusEvent(bool reconnect, bool config_needed, bool power_switch) {
    event("wireless", json{{"reconnect", reconnect},
                           {"config_needed", config_needed},
                           {"power_switch", power_switch}});
}

}  // namespace devio_tool
