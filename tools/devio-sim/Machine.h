#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Description.h"
#include "EventLoop.h"
#include "Receiver.h"
#include "SimDevice.h"
#include "SimNode.h"
#include "SysfsTree.h"

namespace devio_sim {

// A simulated machine: the sysfs subtree and device nodes of its HID devices
// under one directory, served by one thread. Devices and receivers can be
// plugged and unplugged while it runs.
//
// Any thread may call the public operations except the serving thread
// itself (a callback handed to withDevice may not call them). They hand
// their work to the serving thread and wait for it; each returns an empty
// text on success, else the reason for refusing.
class Machine {
public:
    Machine(MachineDescription description, std::string dir);
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // Makes the tree and plugs everything that starts plugged.
    std::string start();

    std::string plug(const std::string& id);
    std::string unplug(const std::string& id);
    std::string hangup(const std::string& id);
    std::string setWriteMode(const std::string& id, SimNode::WriteMode mode);
    std::string setLink(const std::string& device_id, bool up);
    std::string pair(const std::string& receiver_id, const std::string& device_id, int slot);
    std::string unpair(const std::string& device_id);
    std::string overwriteFlags(const std::string& receiver_id);

    // Runs `fn` on the serving thread with the device (corded or paired),
    // its device index on the wire and the node that carries its reports
    // (nullptr while unplugged or not paired). Its result is returned.
    using DeviceWork = std::function<std::string(SimDevice&, Byte index, Outbox* out)>;
    std::string withDevice(const std::string& id, const DeviceWork& fn);
    // The faults of a device or of a receiver itself.
    std::string withFaults(const std::string& id, const std::function<std::string(Faults&)>& fn);

    // The hidraw number of a plugged device or receiver, -1 if unplugged or
    // unknown; for a paired device, that of its receiver.
    int hidrawOf(const std::string& id);
    // One line per device and receiver, saying where it is.
    std::string list();

    std::string sysfsRoot() const { return tree_.sysfsRoot(); }
    std::string devRoot() const { return tree_.devRoot(); }
    std::string nodePath(int hidraw) const { return tree_.nodePath(hidraw); }

private:
    // A device or receiver with a node of its own.
    struct Unit {
        std::unique_ptr<SimDevice> device;
        std::unique_ptr<Receiver> receiver;
        NodeIdentity identity;
        std::vector<Collection> collections;
        bool start_plugged = true;
        int hidraw = -1;
        std::shared_ptr<SimNode> node;
        SimNode::WriteMode write_mode = SimNode::WriteMode::Normal;

        Endpoint& endpoint() { return device ? static_cast<Endpoint&>(*device) : *receiver; }
        std::string id() const { return device ? device->id() : receiver->description().id; }
    };

    Unit* findUnit(const std::string& id);
    // The receiver unit that knows a device, paired or not.
    Unit* receiverOf(const std::string& device_id);
    std::string plugUnit(Unit& unit);
    void unplugUnit(Unit& unit);
    std::string onServer(const std::function<std::string()>& fn);

    SysfsTree tree_;
    std::vector<std::unique_ptr<Unit>> units_;  // serving thread only, after construction
    int hid_sequence_ = 0;                      // serving thread only
    bool started_ = false;
    EventLoop loop_;
};

}  // namespace devio_sim
