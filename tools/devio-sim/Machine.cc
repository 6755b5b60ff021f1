#include "Machine.h"

#include <set>

#include "ReportDescriptor.h"

namespace devio_sim {

Machine::Machine(MachineDescription description, std::string dir) : tree_(std::move(dir)) {
    int port = 0;
    auto identity = [&port](const std::string& name, std::uint16_t vid, std::uint16_t pid,
                            std::uint16_t release, const std::string& serial,
                            const std::string& bus) {
        NodeIdentity id;
        id.bus = bus;
        id.vid = vid;
        id.pid = pid;
        id.release = release;
        id.name = name;
        id.serial = serial;
        id.port = ++port;
        return id;
    };
    for (DeviceDescription& d : description.devices) {
        auto unit = std::make_unique<Unit>();
        unit->identity = identity(d.name, d.vid, d.pid, d.release, d.serial, d.bus);
        unit->identity.address = d.address;
        unit->collections = d.collections;
        unit->start_plugged = d.plugged;
        unit->device = std::make_unique<SimDevice>(std::move(d));
        units_.push_back(std::move(unit));
    }
    for (const ReceiverDescription& r : description.receivers) {
        auto unit = std::make_unique<Unit>();
        unit->identity = identity(r.name, r.vid, r.pid, r.release, r.serial, "usb");
        unit->collections = r.collections;
        unit->start_plugged = r.plugged;
        unit->receiver = std::make_unique<Receiver>(r);
        units_.push_back(std::move(unit));
    }
}

Machine::~Machine() {
    loop_.run([this] {
        for (auto& unit : units_) unplugUnit(*unit);
        units_.clear();
    });
}

std::string Machine::onServer(const std::function<std::string()>& fn) {
    std::string result;
    loop_.run([&] { result = fn(); });
    return result;
}

std::string Machine::start() {
    return onServer([this]() -> std::string {
        std::string why;
        if (started_) return "already started";
        if (!tree_.prepare(why)) return why;
        started_ = true;
        for (auto& unit : units_) {
            if (!unit->start_plugged) continue;
            if (std::string e = plugUnit(*unit); !e.empty()) return e;
        }
        return {};
    });
}

Machine::Unit* Machine::findUnit(const std::string& id) {
    for (auto& unit : units_) {
        if (unit->id() == id) return unit.get();
    }
    return nullptr;
}

Machine::Unit* Machine::receiverOf(const std::string& device_id) {
    for (auto& unit : units_) {
        if (unit->receiver && unit->receiver->find(device_id) != nullptr) return unit.get();
    }
    return nullptr;
}

// The kernel hands out the lowest free hidraw number, and a running number
// for each HID device it makes.
std::string Machine::plugUnit(Unit& unit) {
    if (unit.hidraw >= 0) return unit.id() + " is plugged already";
    std::set<int> used;
    for (const auto& u : units_) used.insert(u->hidraw);
    int n = 0;
    while (used.count(n) != 0) ++n;
    unit.identity.hid_sequence = ++hid_sequence_;
    unit.identity.descriptor = buildReportDescriptor(unit.collections);
    std::string why;
    auto node =
        std::make_shared<SimNode>(loop_, tree_.nodePath(n), unit.collections, unit.endpoint());
    if (!tree_.add(n, unit.identity, why) || !node->open(why) ||
        !tree_.publish(n, unit.identity, why)) {
        node->close();
        tree_.remove(n, unit.identity);
        return why;
    }
    unit.hidraw = n;
    unit.node = std::move(node);
    if (unit.receiver) unit.receiver->faults().plugged();
    unit.write_mode = SimNode::WriteMode::Normal;
    return {};
}

void Machine::unplugUnit(Unit& unit) {
    if (unit.hidraw < 0) return;
    tree_.remove(unit.hidraw, unit.identity);
    unit.node->close();
    unit.node.reset();
    unit.hidraw = -1;
}

std::string Machine::plug(const std::string& id) {
    return onServer([&]() -> std::string {
        Unit* unit = findUnit(id);
        if (unit == nullptr) return "no device or receiver " + id + " with a node of its own";
        return plugUnit(*unit);
    });
}

std::string Machine::unplug(const std::string& id) {
    return onServer([&]() -> std::string {
        Unit* unit = findUnit(id);
        if (unit == nullptr) return "no device or receiver " + id + " with a node of its own";
        if (unit->hidraw < 0) return id + " is not plugged";
        unplugUnit(*unit);
        return {};
    });
}

std::string Machine::hangup(const std::string& id) {
    return onServer([&]() -> std::string {
        Unit* unit = findUnit(id);
        if (unit == nullptr || unit->hidraw < 0) return id + " has no node";
        unit->node->hangup();
        return {};
    });
}

std::string Machine::setWriteMode(const std::string& id, SimNode::WriteMode mode) {
    return onServer([&]() -> std::string {
        Unit* unit = findUnit(id);
        if (unit == nullptr) unit = receiverOf(id);
        if (unit == nullptr || unit->hidraw < 0) return id + " has no node";
        unit->write_mode = mode;
        unit->node->setWriteMode(mode);
        return {};
    });
}

std::string Machine::setLink(const std::string& device_id, bool up) {
    return onServer([&]() -> std::string {
        Unit* unit = receiverOf(device_id);
        if (unit == nullptr) return device_id + " is behind no receiver";
        if (unit->hidraw < 0) return unit->id() + " is not plugged";
        std::string why;
        return unit->receiver->setLink(device_id, up, *unit->node, why) ? std::string() : why;
    });
}

std::string Machine::pair(const std::string& receiver_id, const std::string& device_id, int slot) {
    return onServer([&]() -> std::string {
        Unit* unit = findUnit(receiver_id);
        if (unit == nullptr || !unit->receiver) return "no receiver " + receiver_id;
        if (unit->hidraw < 0) return receiver_id + " is not plugged";
        std::string why;
        return unit->receiver->pair(device_id, slot, *unit->node, why) ? std::string() : why;
    });
}

std::string Machine::unpair(const std::string& device_id) {
    return onServer([&]() -> std::string {
        Unit* unit = receiverOf(device_id);
        if (unit == nullptr) return device_id + " is behind no receiver";
        if (unit->hidraw < 0) return unit->id() + " is not plugged";
        std::string why;
        return unit->receiver->unpair(device_id, *unit->node, why) ? std::string() : why;
    });
}

std::string Machine::overwriteFlags(const std::string& receiver_id) {
    return onServer([&]() -> std::string {
        Unit* unit = findUnit(receiver_id);
        if (unit == nullptr || !unit->receiver) return "no receiver " + receiver_id;
        if (unit->hidraw < 0) return receiver_id + " is not plugged";
        unit->receiver->flagsOverwrittenByOtherSoftware(*unit->node);
        return {};
    });
}

std::string Machine::withDevice(const std::string& id, const DeviceWork& fn) {
    return onServer([&]() -> std::string {
        if (Unit* unit = findUnit(id); unit != nullptr && unit->device) {
            return fn(*unit->device, kReceiverIndex, unit->node.get());
        }
        Unit* unit = receiverOf(id);
        if (unit == nullptr) return "no device " + id;
        const int slot = unit->receiver->slotOf(id);
        const bool reachable = unit->node && slot != 0 && unit->receiver->linkUp(slot);
        return fn(*unit->receiver->find(id), static_cast<Byte>(slot),
                  reachable ? unit->node.get() : nullptr);
    });
}

std::string Machine::withFaults(const std::string& id,
                                const std::function<std::string(Faults&)>& fn) {
    return onServer([&]() -> std::string {
        if (Unit* unit = findUnit(id); unit != nullptr) {
            return fn(unit->device ? unit->device->faults() : unit->receiver->faults());
        }
        Unit* unit = receiverOf(id);
        if (unit == nullptr) return "no device or receiver " + id;
        return fn(unit->receiver->find(id)->faults());
    });
}

int Machine::hidrawOf(const std::string& id) {
    int n = -1;
    loop_.run([&] {
        Unit* unit = findUnit(id);
        if (unit == nullptr) unit = receiverOf(id);
        if (unit != nullptr) n = unit->hidraw;
    });
    return n;
}

std::string Machine::list() {
    return onServer([this] {
        std::string out;
        for (const auto& unit : units_) {
            const std::string where =
                unit->hidraw < 0 ? "unplugged" : "hidraw" + std::to_string(unit->hidraw);
            out += unit->id() + (unit->device ? " device " : " receiver ") + where + "\n";
            if (unit->receiver) out += unit->receiver->describe();
        }
        return out;
    });
}

}  // namespace devio_sim
