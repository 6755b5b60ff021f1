#pragma once

#include <string>

namespace devio {

class Device;

// The receiver commands that the receiver's bus and its devices share. Each
// sends one register command through `device` (the receiver's Device),
// blocks for the answer, and fails with the error of the command engine, or
// with its own for a null device or a short answer.
class VXP10Command {
public:
    // Asks the receiver to announce every paired device again (an arrival
    // report each, before the answer) when `fakeArrival` is set.
    static bool set_receiver_connection_state(Device* device, bool fakeArrival);
    // The number of paired devices; `other` is the byte after it, unused.
    static bool read_receiver_connection_state(Device* device, unsigned* count, unsigned* other);
    // The name that the receiver keeps for the device in slot `index`.
    static bool read_receiver_paired_device_name(Device* device, unsigned index, std::string* name);
};

}  // namespace devio
