#pragma once

// Test support for receivers: a desk with one receiver and the devices
// paired to it, and a ledger of what the manager announces, in order.

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Base/Subscriber.h"
#include "Device/IDevice.h"
#include "Manager/IDeviceManager.h"

namespace rcvtest {

inline constexpr unsigned kReceiversActive = 4;
inline constexpr int kDongle = 0xA101;
inline constexpr int kKbd = 0x4B21, kMouse = 0x4C02, kBall = 0x4D03, kSpare = 0x4E11,
                     kOther = 0x4F22;

// Receiver 0xA101 (six slots, protocol byte 4) with three paired devices,
// the trackball's link down, and two more that can be paired at run time.
inline std::string desk(bool plugged = true) {
    return std::string(R"({"receivers": [
  {"id": "dongle", "name": "Sim Receiver", "pid": "0xA101", "plugged": )") +
           (plugged ? "true" : "false") + R"(, "devices": [
    {"id": "kbd", "name": "Sim Keyboard", "qid": "0x4B21", "slot": 1},
    {"id": "mouse", "name": "Sim Mouse", "qid": "0x4C02", "slot": 2},
    {"id": "ball", "name": "Sim Trackball", "qid": "0x4D03", "slot": 3, "connected": false},
    {"id": "spare", "name": "Spare", "qid": "0x4E11", "paired": false},
    {"id": "other", "name": "Other", "qid": "0x4F22", "paired": false}]}]})";
}

// Arrivals (+pid) and removals (-pid) in the order the manager told them,
// and the devices it holds as present.
class Ledger : public devio::Subscriber<devio::IDeviceManager::ArrivalRemoval> {
public:
    void onDeviceArrival(const std::shared_ptr<devio::IDevice>& d) override {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(d->pid());
        present_.push_back(d);
    }
    void onDeviceRemoval(const std::shared_ptr<devio::IDevice>& d) override {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(-d->pid());
        present_.erase(std::remove(present_.begin(), present_.end(), d), present_.end());
    }
    std::vector<int> events() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    std::size_t size() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_.size();
    }
    std::shared_ptr<devio::IDevice> present(int pid) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& d : present_) {
            if (d->pid() == pid) return d;
        }
        return nullptr;
    }

private:
    std::mutex mutex_;
    std::vector<int> events_;
    std::vector<std::shared_ptr<devio::IDevice>> present_;
};

inline std::shared_ptr<devio::IDevice> with_pid(
    const std::vector<std::shared_ptr<devio::IDevice>>& devices, int pid) {
    for (const auto& d : devices) {
        if (d->pid() == pid) return d;
    }
    return nullptr;
}

inline std::vector<int> pids(const std::vector<std::shared_ptr<devio::IDevice>>& devices) {
    std::vector<int> out;
    for (const auto& d : devices) out.push_back(d->pid());
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace rcvtest
