#pragma once

#include <cstddef>

#include "Base/Byte.h"
#include "Base/ClassLog.h"

// The receiver's side of the wire, in one place for its bus and its
// devices: register commands (always short reports at device index 0xFF),
// the registers and bits the library touches, and the notifications of
// paired devices coming and going.
namespace devio::braid {

inline constexpr Byte kReportId = 0x10;
inline constexpr Byte kReceiverIndex = 0xFF;
// Every receiver report is a short one.
inline constexpr std::size_t kShortReport = 7;

// Register sub ids.
inline constexpr Byte kWriteShort = 0x80;
inline constexpr Byte kReadShort = 0x81;
inline constexpr Byte kReadLong = 0x83;

// Registers.
inline constexpr Byte kRegisterZero = 0x00;
inline constexpr Byte kConnectionState = 0x02;
inline constexpr Byte kRegister3 = 0x03;
inline constexpr Byte kPairing = 0xB2;
inline constexpr Byte kSlotStatus = 0xB3;
inline constexpr Byte kPairedName = 0xB5;

// Second byte of register 0.
inline constexpr Byte kWirelessNotifications = 0x01;
inline constexpr Byte kSoftwarePresent = 0x08;

// Notifications, by sub id, and their fields.
inline constexpr Byte kRemoval = 0x40;
inline constexpr Byte kArrival = 0x41;
inline constexpr Byte kLockingChange = 0x4A;
inline constexpr Byte kVxp10Error = 0x8F;
inline constexpr Byte kRemovalKind = 0x02;
inline constexpr Byte kLinkDownBit = 0x40;

}  // namespace devio::braid

#define BRAID_LOG(level, function, ...) \
    DEVIO_LOG_TAG("Devio", "BraidBus", level, function, __VA_ARGS__)
