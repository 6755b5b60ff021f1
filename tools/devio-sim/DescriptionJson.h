#pragma once

#include <string>

#include "Description.h"

namespace devio_sim {

// Reads a machine description (JSON text). Fields that are left out take
// defaults that make a plausible device; see the README for the format.
// Throws std::runtime_error naming the offending field.
MachineDescription parseMachine(const std::string& json_text);

// Receiver products: how many devices they pair and the byte 3 of their
// arrival reports. False for a product id that is no known receiver.
bool receiverProduct(std::uint16_t pid, int& max_devices, Byte& protocol_byte);

}  // namespace devio_sim
