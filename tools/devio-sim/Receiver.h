#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Description.h"
#include "Faults.h"
#include "Outbox.h"
#include "SimDevice.h"

namespace devio_sim {

// A simulated receiver: register commands for itself (device index 0xFF)
// and the paired devices behind it at device numbers 1 to max_devices.
// Devices that are unpaired stay known to it, so that they can be paired
// again at run time.
//
// Not thread-safe: used on the machine's serving thread only.
class Receiver : public Endpoint {
public:
    explicit Receiver(const ReceiverDescription& description);

    void onHostReport(const Report& report, Outbox& out) override;

    // Run-time events; each sends the notifications a real receiver would.
    // `pair` into a device number that is taken replaces the device there.
    // `why` says what was wrong when one returns false.
    bool pair(const std::string& device_id, int slot, Outbox& out, std::string& why);
    bool unpair(const std::string& device_id, Outbox& out, std::string& why);
    bool setLink(const std::string& device_id, bool up, Outbox& out, std::string& why);
    // Another program on the host writes zeros to register 0x00: the flags
    // are cleared, and every host sees the answer to that write.
    void flagsOverwrittenByOtherSoftware(Outbox& out);

    // The device with that id, paired or not; nullptr if unknown here.
    SimDevice* find(const std::string& device_id);
    // Its device number, 0 when it is not paired.
    int slotOf(const std::string& device_id) const;
    bool linkUp(int slot) const { return slots_.at(slot - 1).link_up; }
    const ReceiverDescription& description() const { return desc_; }
    // One line per known device: its device number and link, or unpaired.
    std::string describe() const;
    Faults& faults() { return faults_; }
    // Commands that arrived while a paired device's answer to another was
    // still on its way (see `fault ID delay`).
    int overlaps() const { return overlaps_; }

private:
    struct Slot {
        std::unique_ptr<SimDevice> device;
        bool link_up = false;
    };

    // Carries out one command; how late its answer goes out, -1 for none.
    int carryOut(const Report& report, Outbox& out);
    std::optional<Report> registerCommand(const Report& request, Outbox& out);
    std::optional<Report> readShort(const Report& request);
    std::optional<Report> writeShort(const Report& request, Outbox& out);
    std::optional<Report> readLong(const Report& request);
    void sendArrival(int slot, Outbox& out) const;
    void sendLinkUp(int slot, Outbox& out);
    bool wirelessNotificationsOn() const;
    // Empties a slot; the removal notification, when notifications are on.
    std::optional<Report> removeFromSlot(int slot);

    ReceiverDescription desc_;
    std::array<Byte, 3> register0_;
    std::array<Byte, 3> register3_;
    bool lock_open_ = false;
    std::vector<Slot> slots_;
    std::vector<std::unique_ptr<SimDevice>> unpaired_;
    // Notifications that follow the answer of the command being handled.
    std::vector<Report> after_answer_;
    Faults faults_;
    std::chrono::steady_clock::time_point busy_until_{};
    int overlaps_ = 0;
};

}  // namespace devio_sim
