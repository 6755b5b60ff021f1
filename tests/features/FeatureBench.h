#pragma once

// Test support: a simulated device whose root feature is in place, as
// feature loading leaves it, and feature objects made through the registry
// at the indices that the root reports.

#include <memory>
#include <string>
#include <thread>

#include "Base/ErrorRecord.h"
#include "DeviceRig.h"
#include "Features/FeatureRegistry.h"
#include "Features/IFeature0000Root.h"
#include "Features/IFeature0020ConfigChange.h"
#include "Features/IFeature1000BatteryUnifiedLevelStatus.h"
#include "Features/IFeature1D4BWirelessStatus.h"
#include "Features/IFeature1F1FFirmwareProperty.h"

namespace devtest {

class FeatureBench {
public:
    explicit FeatureBench(const std::string& machine);

    // The feature `id` as its interface `I`; null (with a test failure) if
    // the device lacks it or the object is not of that interface.
    template <class I>
    std::shared_ptr<I> load(unsigned id) {
        auto feature = loadFeature(id);
        auto typed = std::dynamic_pointer_cast<I>(feature);
        EXPECT_TRUE(typed) << "feature " << id;
        return typed;
    }
    std::shared_ptr<devio::IFeature> loadFeature(unsigned id);

    // Reports that reached the hardware since the last call.
    std::size_t sentSinceLastLook();

    std::string description;
    DeviceRig rig;
    std::shared_ptr<devio::IFeature> rootFeature;
    std::shared_ptr<devio::IFeature0000Root> root;

private:
    std::size_t seen_ = 0;
};

// What features tell their subscribers, a line of text per event, with the
// thread each came on. Events come on the read thread or the run loop's
// pump; the owner reads them after waiting.
class EventTrail : public devio::Subscriber<devio::IFeature0020ConfigChange::ConfigReport>,
                   public devio::Subscriber<devio::IFeature1000BatteryUnifiedLevelStatus::Report>,
                   public devio::Subscriber<devio::IFeature1D4BWirelessStatus::Report>,
                   public devio::Subscriber<devio::IFeature1F1FFirmwareProperty::Notification> {
public:
    // Subscribes to the events `Event` of `object`.
    template <class Event, class Object>
    bool join(const std::shared_ptr<Object>& object, int delivery) {
        return devio::Subscriber<Event>::subscribe(
            std::dynamic_pointer_cast<typename Event::Interface>(object), delivery);
    }

    void onCookieSet(unsigned swid, unsigned short cookie) override;
    void onBatteryLevelStatus(short level, short nextLevel, short status) override;
    void onWirelessStatusEvent(bool reconnect, bool configNeeded, bool powerSwitch) override;
    void onPropertyChanged() override;

    // The events so far, once there are at least `n` (or the time is up).
    std::vector<std::string> wait(std::size_t n, std::chrono::milliseconds timeout = 3000ms);
    // The threads that delivered them, in order.
    std::vector<std::thread::id> threads();

private:
    void add(std::string line);
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::string> lines_;
    std::vector<std::thread::id> threads_;
};

// One corded device in the simulator's description language, with the
// firmware fields given as JSON members (without braces).
std::string deviceMachine(const std::string& firmwareMembers);

}  // namespace devtest
