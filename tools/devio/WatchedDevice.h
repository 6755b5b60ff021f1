#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Base/Subscriber.h"
#include "Device/IDevice.h"
#include "Features/IFeature0020ConfigChange.h"
#include "Features/IFeature1000BatteryUnifiedLevelStatus.h"
#include "Features/IFeature1D4BWirelessStatus.h"
#include "Features/IFeature1F1FFirmwareProperties.h"

namespace devio_tool {

// One device under `devio watch`: its events, and those of its battery,
// wireless status, cookie and firmware properties, each turned into one
// event object for `emit`. All subscriptions are of the run loop, so every
// handler runs on the thread that pumps it, where sending the device a
// command is allowed; the object is made and destroyed on that thread.
class WatchedDevice
    : public devio::Subscriber<devio::IDevice::Connect>,
      public devio::Subscriber<devio::IDevice::ConfigChange>,
      public devio::Subscriber<devio::IFeature0020ConfigChange::ConfigReport>,
      public devio::Subscriber<devio::IFeature1000BatteryUnifiedLevelStatus::Report>,
      public devio::Subscriber<devio::IFeature1D4BWirelessStatus::Report> {
public:
    using Emit = std::function<void(const nlohmann::json&)>;

    WatchedDevice(std::shared_ptr<devio::IDevice> device, Emit emit);
    ~WatchedDevice() override;

    // Says that the device is there, then follows it.
    void announce();
    void removed();

    void onConnect(const std::shared_ptr<devio::IDevice>& device, bool configured) override;
    void onDisconnect(const std::shared_ptr<devio::IDevice>& device) override;
    void onFirmwareChanged(const std::shared_ptr<devio::IDevice>& device) override;
    void onConfigChange() override;
    void onCookieSet(unsigned swid, unsigned short cookie) override;
    void onBatteryLevelStatus(short level, short next_level, short status) override;
    void onWirelessStatusEvent(bool reconnect, bool config_needed, bool power_switch) override;

private:
    class Property;

    // (Re)joins the device's features; a firmware change makes new ones.
    void followFeatures();
    void dropFeatures();
    void event(const char* name, nlohmann::json fields = nlohmann::json::object());

    std::shared_ptr<devio::IDevice> device_;
    std::string path_;
    Emit emit_;
    std::shared_ptr<devio::IFeature0020ConfigChange> cookie_;
    std::shared_ptr<devio::IFeature1000BatteryUnifiedLevelStatus> battery_;
    std::shared_ptr<devio::IFeature1D4BWirelessStatus> wireless_;
    // Owns the property objects that `properties_` follow.
    std::shared_ptr<devio::IFeature1F1FFirmwareProperties> props_;
    std::vector<std::unique_ptr<Property>> properties_;
};

}  // namespace devio_tool
