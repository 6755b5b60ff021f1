#pragma once

#include "Report.h"

namespace devio_sim {

// The error bytes that simulated hardware answers with. The host attaches no
// meaning to them beyond retrying on some, so these are our own choices; they
// are listed in the README so that tests can expect them.
namespace vxp10 {
// A sub id the receiver does not serve; also what a device that speaks only
// the register protocol answers to a feature request.
inline constexpr Byte kUnsupportedSubId = 0x01;
inline constexpr Byte kUnknownRegister = 0x02;
inline constexpr Byte kBadValue = 0x03;
// The device number is paired but its link is down.
inline constexpr Byte kLinkDown = 0x04;
// Nothing is paired at the device number.
inline constexpr Byte kNoDevice = 0x08;
}  // namespace vxp10

namespace vxp20 {
inline constexpr Byte kBadArgument = 0x02;
inline constexpr Byte kNotAllowed = 0x04;
inline constexpr Byte kUnknownFeature = 0x05;
inline constexpr Byte kUnknownFunction = 0x07;
}  // namespace vxp20

// An error report in the form of either protocol version, answering `request`.
inline Report errorReport(const Report& request, int version, Byte error) {
    return Report{byteAt(request, 0),
                  byteAt(request, 1),
                  version == 1 ? kVxp10ErrorSubId : kVxp20ErrorIndex,
                  byteAt(request, 2),
                  byteAt(request, 3),
                  error,
                  0};
}

}  // namespace devio_sim
