// BraidBus: what the receiver's reports mean for its slots, on the read
// thread, and what a change of the session does to them.

#include "Bus/Braid/BraidBus.h"
#include "Bus/Braid/BraidDevice.h"
#include "Bus/Braid/BraidWire.h"

namespace devio {

namespace {
using namespace braid;
constexpr Byte kSoftwarePresentAndNotifications = kSoftwarePresent | kWirelessNotifications;
}  // namespace

void BraidBus::onRead(std::vector<Byte> report, bool rewrite_index, unsigned sys_error,
                      unsigned size) {
    if (report.size() >= kShortReport) {
        const unsigned number = report[1];
        const bool in_range = number >= 1 && number <= maxDevices;
        if (report[2] == kArrival && report[3] == protocolByte && in_range) {
            const unsigned index = number - 1;
            const bool link_up = (report[4] & kLinkDownBit) == 0;
            // The qid is the one field that travels low byte first.
            const unsigned qid = report[5] + report[6] * 256u;
            BRAID_LOG(2, "onRead",
                      "BraidBus::onRead() connect(index = %d, qid=0x%04x, connected=%d)",
                      static_cast<int>(index), qid, link_up);
            if (auto me = self()) perform_arrival(me, index, qid, link_up, enumerating);
        }
        if (report[2] == kRemoval && report[3] == kRemovalKind && in_range) {
            BRAID_LOG(2, "onRead", "BraidBus::onRead() disconnect(index = %d)",
                      static_cast<int>(number - 1));
            if (auto me = self()) perform_removal(me, number - 1);
        }
        if (report[2] == kLockingChange) {
            auto me = self();
            const auto state = static_cast<IReceiver::State>(report[3]);
            const auto error = static_cast<IReceiver::ErrorType>(report[4]);
            Producer<IReceiver::LockingChange>::produce(
                [me, state, error](IReceiver::LockingChange* s) {
                    s->onLockingChange(me, state, error);
                },
                event_names::IReceiverLockingChange.onLockingChange);
        }
        if (report[1] == kReceiverIndex && report[2] == kWriteShort && report[3] == kRegisterZero) {
            BRAID_LOG(2, "onRead",
                      "BraidBus::onRead() detected write to receiver register 0, other software "
                      "might have cleared software present and wireless notification bits");
            Producer<IReceiver::RegisterZeroOverwritten>::produce(
                [](IReceiver::RegisterZeroOverwritten* s) { s->onRegisterZeroOverwritten(); },
                event_names::IReceiverRegisterZeroOverwritten.onRegisterZeroOverwritten);
        }
        if (in_range && number < kReceiverIndex && report[2] != kRemoval && report[2] != kArrival) {
            const unsigned index = number - 1;
            if (auto device = device_at(index)) {
                device->deliver_read(report, sys_error, size);
                if (!device->connected()) {
                    if (report[2] != kVxp10Error) {
                        BRAID_LOG(1, "onRead",
                                  "BraidBus::onRead() device index: %d pid: 0x%x was in "
                                  "disconnected state but is sending reports. Firing connected "
                                  "event.",
                                  static_cast<int>(index), device->qid());
                        perform_connect(index);
                    } else {
                        BRAID_LOG(2, "onRead",
                                  "Got error response from unconnected device... maybe some other "
                                  "SW tried to talk to it and failed");
                    }
                }
            }
        }
    }
    Device::onRead(std::move(report), rewrite_index, sys_error, size);
}

void BraidBus::onWrite(std::vector<Byte> report, ErrorCode err, unsigned value) {
    if (report.size() > 1 && report[1] >= 1 && report[1] <= maxDevices) {
        if (auto device = device_at(report[1] - 1u)) device->deliver_write(report, err, value);
    }
    Device::onWrite(std::move(report), err, value);
}

void BraidBus::perform_arrival(const std::shared_ptr<BraidBus>& me, unsigned index, unsigned qid,
                               bool connected, bool fake) {
    BRAID_LOG(2, "perform_arrival",
              "BraidBus::perform_arrival(qid=%0x, connected=%d, fake_device_arrival=%d)", qid,
              connected, fake);
    auto device = device_at(index);
    if (device && device->qid() != qid) {
        // Another product was paired into this slot.
        BRAID_LOG(2, "perform_arrival", "  going to call perform_disconnect()");
        perform_disconnect(index);
        BRAID_LOG(2, "perform_arrival", "  going to call perform_removal()");
        perform_removal(me, index);
        device.reset();
    }
    bool is_new = false;
    if (!device) {
        device = std::make_shared<BraidDevice>(me, index, qid, connected);
        std::lock_guard<std::mutex> lock(devicesLock);
        slots[index] = device;
        if (index < slotStatus.size()) device->set_slot_status(slotStatus[index]);
        is_new = true;
    }
    if (connected) {
        BRAID_LOG(2, "perform_arrival", "  going to call perform_connect()");
        perform_connect(index);
    } else {
        BRAID_LOG(2, "perform_arrival", "  going to call perform_disconnect()");
        perform_disconnect(index);
    }
    if (fake) {
        std::size_t unique = 0;
        {
            std::lock_guard<std::mutex> lock(arrivalLock);
            ++arrivalCounts[index];
            unique = arrivalCounts.size();
        }
        BRAID_LOG(2, "perform_arrival", "   -- arrival count so far: %d", static_cast<int>(unique));
    }
    // During enumeration the caller gets the devices as its result.
    if (is_new && !fake) produce_plug(device);
}

void BraidBus::perform_removal(const std::shared_ptr<BraidBus>& me, unsigned index) {
    // The manager knows devices by path, which a stand-in of the slot
    // shares with the real one.
    auto stand_in = std::make_shared<BraidDevice>(me, index, 0, false);
    produce_unplug(stand_in);
    std::lock_guard<std::mutex> lock(devicesLock);
    slots[index].reset();
}

void BraidBus::perform_connect(unsigned index) {
    perform_link(index, true);
}

void BraidBus::perform_disconnect(unsigned index) {
    perform_link(index, false);
}

void BraidBus::perform_link(unsigned index, bool up) {
    const char* name = up ? "perform_connect" : "perform_disconnect";
    const std::string function = std::string("devio::BraidBus::") + name;
    xLog("Devio", 2, function.c_str(), "BraidBus::%s(index = %d)", name, static_cast<int>(index));
    auto device = device_at(index);
    if (!device) {
        xLog("Devio", 3, function.c_str(), "BraidBus::%s(index = %d) : no device at this index!",
             name, static_cast<int>(index));
    } else if (up) {
        device->processConnect();
    } else {
        device->processDisconnect();
    }
}

void BraidBus::produce_plug(const std::shared_ptr<IHardwareDevice>& device) {
    Producer<IHardwareBus::PlugUnplug>::produce(
        [device](IHardwareBus::PlugUnplug* s) { s->onPlug(device); },
        event_names::BraidBusPlugUnplug.onPlug);
}

void BraidBus::produce_unplug(const std::shared_ptr<IHardwareDevice>& device) {
    Producer<IHardwareBus::PlugUnplug>::produce(
        [device](IHardwareBus::PlugUnplug* s) { s->onUnplug(device); },
        event_names::BraidBusPlugUnplug.onUnplug);
}

void BraidBus::onActiveChanged(bool now_active) {
    BRAID_LOG(3, "onActiveChanged", "BraidBus::onActiveChanged(active = %d)", now_active);
    const bool before = bus_active.exchange(now_active);
    Device::onActiveChanged(now_active);
    if (before == now_active || !now_active) return;
    BRAID_LOG(3, "onActiveChanged", "  -- session has become active. Enumerating receiver again.");
    Slots kept;
    std::vector<std::shared_ptr<BraidDevice>> old_devices;
    {
        std::lock_guard<std::mutex> lock(devicesLock);
        kept = slots;
        for (const auto& d : slots) {
            if (d) old_devices.push_back(d);
        }
        for (auto& d : slots) d.reset();
    }
    internal_devices();
    std::vector<std::shared_ptr<BraidDevice>> new_devices;
    {
        std::lock_guard<std::mutex> lock(devicesLock);
        for (const auto& d : slots) {
            if (d) new_devices.push_back(d);
        }
    }
    BRAID_LOG(3, "onActiveChanged",
              "  -- before session active: %d devices paired. After session active: %d devices "
              "paired.",
              static_cast<int>(old_devices.size()), static_cast<int>(new_devices.size()));
    bool same = old_devices.size() == new_devices.size();
    for (std::size_t i = 0; same && i < old_devices.size(); ++i)
        same = old_devices[i]->qid() == new_devices[i]->qid();
    if (same) {
        BRAID_LOG(2, "onActiveChanged",
                  "  -- No devices have changed before session became active.");
        // The objects that the layers above hold stay the ones in use.
        std::lock_guard<std::mutex> lock(devicesLock);
        slots = kept;
        return;
    }
    BRAID_LOG(2, "onActiveChanged",
              "  -- When session became active, we had no devices enumerated on the receiver,");
    BRAID_LOG(2, "onActiveChanged",
              "  -- or the number/order of devices has changed (user in other session invoked "
              "pairing utility).");
    BRAID_LOG(2, "onActiveChanged", "  -- We have to produce onPlug() events for all devices now.");
    for (const auto& d : old_devices) produce_unplug(d);
    for (const auto& d : new_devices) produce_plug(d);
}

void BraidBus::onRegisterZeroOverwritten() {
    Byte bits = kWirelessNotifications;
    if (softwarePresent) {
        BRAID_LOG(2, "onRegisterZeroOverwritten",
                  "BraidBus::onRegisterZeroOverwritten() restoring software present and wireless "
                  "notifications bits");
        bits = kSoftwarePresentAndNotifications;
    } else {
        BRAID_LOG(2, "onRegisterZeroOverwritten",
                  "BraidBus::onRegisterZeroOverwritten() no devices configured, so restoring only "
                  "wireless notifications bit");
    }
    if (!short_register_bit_operation(kRegisterZero, 0, bits, 0, 0, 0, 0)) {
        BRAID_LOG(1, "onRegisterZeroOverwritten",
                  "BraidBus::onRegisterZeroOverwritten error setting register");
    }
}

}  // namespace devio
