#include "FeatureBench.h"

#include <gtest/gtest.h>

namespace devtest {

std::string deviceMachine(const std::string& firmwareMembers) {
    std::string text = R"({"devices": [{"id": "mouse", "name": "Test Mouse", "pid": "0xC08B")";
    if (!firmwareMembers.empty()) text += ", " + firmwareMembers;
    return text + "}]}";
}

FeatureBench::FeatureBench(const std::string& machine)
    : description(machine), rig(false, false, description.c_str()) {
    rootFeature = devio::createFeature(0x0000, 0, rig.dev);
    root = std::dynamic_pointer_cast<devio::IFeature0000Root>(rootFeature);
    rig.dev->store_feature(0, rootFeature);
}

std::shared_ptr<devio::IFeature> FeatureBench::loadFeature(unsigned id) {
    unsigned index = 0;
    if (!root || !root->GetFeature(id, &index, nullptr, nullptr, nullptr, nullptr, true) ||
        index == 0) {
        ADD_FAILURE() << "no feature " << id;
        return nullptr;
    }
    auto feature = devio::createFeature(id, index, rig.dev);
    rig.dev->store_feature(index, feature);
    return feature;
}

void EventTrail::add(std::string line) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(std::move(line));
    threads_.push_back(std::this_thread::get_id());
    cv_.notify_all();
}

void EventTrail::onCookieSet(unsigned swid, unsigned short cookie) {
    add("cookie " + std::to_string(swid) + " " + std::to_string(cookie));
}

void EventTrail::onBatteryLevelStatus(short level, short nextLevel, short status) {
    add("battery " + std::to_string(level) + " " + std::to_string(nextLevel) + " " +
        std::to_string(status));
}

void EventTrail::onWirelessStatusEvent(bool reconnect, bool configNeeded, bool powerSwitch) {
    add("wireless " + std::to_string(reconnect) + std::to_string(configNeeded) +
        std::to_string(powerSwitch));
}

void EventTrail::onPropertyChanged() {
    add("changed");
}

std::vector<std::string> EventTrail::wait(std::size_t n, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait_for(lock, timeout, [&] { return lines_.size() >= n; });
    return lines_;
}

std::vector<std::thread::id> EventTrail::threads() {
    std::lock_guard<std::mutex> lock(mutex_);
    return threads_;
}

std::size_t FeatureBench::sentSinceLastLook() {
    const std::size_t now = rig.rec.sent().size();
    const std::size_t delta = now - seen_;
    seen_ = now;
    return delta;
}

}  // namespace devtest
