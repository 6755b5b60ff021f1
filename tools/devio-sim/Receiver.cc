#include "Receiver.h"

#include "ErrorBytes.h"

namespace devio_sim {

namespace {
constexpr Byte kArrivalSubId = 0x41;
constexpr Byte kRemovalSubId = 0x40;
constexpr Byte kRemovalKind = 0x02;
constexpr Byte kLinkDownBit = 0x40;
constexpr std::uint16_t kWirelessStatus = 0x1D4B;
}  // namespace

Receiver::Receiver(const ReceiverDescription& description)
    : desc_(description),
      register0_(description.register0),
      register3_(description.register3),
      slots_(static_cast<std::size_t>(description.max_devices)) {
    desc_.devices.clear();
    // Devices with a slot go first, so that those without one fill the gaps.
    std::vector<const DeviceDescription*> later;
    for (const DeviceDescription& d : description.devices) {
        if (!d.paired) {
            unpaired_.push_back(std::make_unique<SimDevice>(d));
        } else if (d.slot != 0) {
            slots_[d.slot - 1] = Slot{std::make_unique<SimDevice>(d), d.connected};
        } else {
            later.push_back(&d);
        }
    }
    for (const DeviceDescription* d : later) {
        auto free =
            std::find_if(slots_.begin(), slots_.end(), [](const Slot& s) { return !s.device; });
        if (free == slots_.end()) {
            unpaired_.push_back(std::make_unique<SimDevice>(*d));
        } else {
            *free = Slot{std::make_unique<SimDevice>(*d), d->connected};
        }
    }
}

void Receiver::onHostReport(const Report& report, Outbox& out) {
    if (report.size() < kHeaderSize || faults_.silent()) return;
    // One radio link: a command sent while a paired device's answer is
    // still on its way means that two hosts talk through the receiver at
    // once.
    const auto now = std::chrono::steady_clock::now();
    if (now < busy_until_) ++overlaps_;
    const int delay = carryOut(report, out);
    const bool to_device = report[1] != kReceiverIndex;
    if (to_device && delay > 0) busy_until_ = now + std::chrono::milliseconds(delay);
}

int Receiver::carryOut(const Report& report, Outbox& out) {
    const Byte index = report[1];
    if (index == kReceiverIndex) {
        faults_.respond(
            report, [&] { return registerCommand(report, out); }, out);
        for (const Report& r : after_answer_) out.send(r, std::max(faults_.lastDelayMs(), 0));
        after_answer_.clear();
        return faults_.lastDelayMs();
    }
    // Errors and notifications coming back at us are no commands.
    if (report[2] == kVxp10ErrorSubId || report[2] == kVxp20ErrorIndex) return -1;
    // The receiver answers for a device it cannot reach, as itself.
    if (index == 0 || index > slots_.size() || !slots_[index - 1].device) {
        faults_.respond(
            report, [&] { return errorReport(report, 1, vxp10::kNoDevice); }, out);
        return faults_.lastDelayMs();
    }
    if (!slots_[index - 1].link_up) {
        faults_.respond(
            report, [&] { return errorReport(report, 1, vxp10::kLinkDown); }, out);
        return faults_.lastDelayMs();
    }
    SimDevice& device = *slots_[index - 1].device;
    device.command(report, out);
    return device.faults().lastDelayMs();
}

void Receiver::sendArrival(int slot, Outbox& out) const {
    const Slot& s = slots_[slot - 1];
    const std::uint16_t qid = s.device->firmware().device().qid;
    // The qid travels low byte first, unlike every other field.
    out.send(Report{kShortReportId, static_cast<Byte>(slot), kArrivalSubId, desc_.protocol_byte,
                    static_cast<Byte>(s.link_up ? 0 : kLinkDownBit), static_cast<Byte>(qid & 0xFF),
                    static_cast<Byte>(qid >> 8)});
}

bool Receiver::wirelessNotificationsOn() const {
    return (register0_[1] & 0x01) != 0;
}

// A device whose link comes up announces itself through the receiver, and
// then tells in its own wireless status notification why it is back.
void Receiver::sendLinkUp(int slot, Outbox& out) {
    Slot& s = slots_[slot - 1];
    s.link_up = true;
    if (wirelessNotificationsOn()) sendArrival(slot, out);
    const WirelessStatus& w = s.device->firmware().device().wireless;
    if (auto n =
            s.device->firmware().notification(static_cast<Byte>(slot), kWirelessStatus, 0,
                                              {w.reconnect, w.config_needed, w.power_switch})) {
        out.send(*n);
    }
}

std::optional<Report> Receiver::removeFromSlot(int slot) {
    unpaired_.push_back(std::move(slots_[slot - 1].device));
    slots_[slot - 1] = Slot{};
    if (!wirelessNotificationsOn()) return std::nullopt;
    return Report{kShortReportId, static_cast<Byte>(slot), kRemovalSubId, kRemovalKind, 0, 0, 0};
}

SimDevice* Receiver::find(const std::string& device_id) {
    for (Slot& s : slots_) {
        if (s.device && s.device->id() == device_id) return s.device.get();
    }
    for (auto& d : unpaired_) {
        if (d->id() == device_id) return d.get();
    }
    return nullptr;
}

void Receiver::flagsOverwrittenByOtherSoftware(Outbox& out) {
    register0_ = {0, 0, 0};
    out.send(Report{kShortReportId, kReceiverIndex, 0x80, 0x00, 0, 0, 0});
}

std::string Receiver::describe() const {
    std::string out;
    for (std::size_t i = 0; i < slots_.size(); ++i) {
        if (!slots_[i].device) continue;
        out += "  " + slots_[i].device->id() + " device number " + std::to_string(i + 1) +
               (slots_[i].link_up ? " link up\n" : " link down\n");
    }
    for (const auto& d : unpaired_) out += "  " + d->id() + " unpaired\n";
    out += "  commands overlapping an answer: " + std::to_string(overlaps_) + "\n";
    return out;
}

int Receiver::slotOf(const std::string& device_id) const {
    for (std::size_t i = 0; i < slots_.size(); ++i) {
        if (slots_[i].device && slots_[i].device->id() == device_id) return static_cast<int>(i + 1);
    }
    return 0;
}

bool Receiver::pair(const std::string& device_id, int slot, Outbox& out, std::string& why) {
    if (slotOf(device_id) != 0) {
        why = device_id + " is paired already";
        return false;
    }
    auto it = std::find_if(unpaired_.begin(), unpaired_.end(),
                           [&](const auto& d) { return d->id() == device_id; });
    if (it == unpaired_.end()) {
        why = device_id + " is no device of " + desc_.id;
        return false;
    }
    if (slot == 0) {
        for (std::size_t i = 0; i < slots_.size() && slot == 0; ++i) {
            if (!slots_[i].device) slot = static_cast<int>(i + 1);
        }
    }
    if (slot < 1 || slot > static_cast<int>(slots_.size())) {
        why = "no free device number on " + desc_.id;
        return false;
    }
    auto device = std::move(*it);
    unpaired_.erase(it);
    // A device paired into a taken number pushes the one there out, which
    // says nothing: only the newcomer's arrival tells the host.
    if (slots_[slot - 1].device) unpaired_.push_back(std::move(slots_[slot - 1].device));
    slots_[slot - 1].device = std::move(device);
    sendLinkUp(slot, out);
    // A pairing ends the pairing window.
    if (lock_open_) {
        lock_open_ = false;
        out.send(Report{kShortReportId, kReceiverIndex, 0x4A, 0, 0, 0, 0});
    }
    return true;
}

bool Receiver::unpair(const std::string& device_id, Outbox& out, std::string& why) {
    const int slot = slotOf(device_id);
    if (slot == 0) {
        why = device_id + " is not paired to " + desc_.id;
        return false;
    }
    if (auto removal = removeFromSlot(slot)) out.send(*removal);
    return true;
}

bool Receiver::setLink(const std::string& device_id, bool up, Outbox& out, std::string& why) {
    const int slot = slotOf(device_id);
    if (slot == 0) {
        why = device_id + " is not paired to " + desc_.id;
        return false;
    }
    if (up) {
        sendLinkUp(slot, out);
    } else {
        slots_[slot - 1].link_up = false;
        if (wirelessNotificationsOn()) sendArrival(slot, out);
    }
    return true;
}

}  // namespace devio_sim
