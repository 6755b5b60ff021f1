#pragma once

namespace devio {

// What a device behind a receiver does for the configuration of its logical
// device: the receiver is told that software configures something behind it
// (its software present bit), the device's entry in the receiver is written
// again, and at the end the receiver is handed back. A Device reaches these
// by a run-time cast of its hardware device, on devices behind a receiver
// only. Called on the caller's thread; each blocks for its commands.
class IReceiverDevice {
public:
    virtual bool configuring_receiver() = 0;
    virtual bool configuring_device() = 0;
    virtual bool done_configuring_receiver() = 0;

protected:
    ~IReceiverDevice() = default;
};

}  // namespace devio
