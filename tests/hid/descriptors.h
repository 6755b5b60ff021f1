#pragma once

// Report descriptors written out from public HID documentation, shared by the
// parser tests, the binding tests and the fuzz corpus.

#include <cstdint>
#include <vector>

namespace hidtest {

using Bytes = std::vector<std::uint8_t>;

// The boot keyboard of HID 1.11, appendix B.1.
inline const Bytes kKeyboard = {
    0x05, 0x01,  // Usage Page (Generic Desktop)
    0x09, 0x06,  // Usage (Keyboard)
    0xA1, 0x01,  // Collection (Application)
    0x05, 0x07,  //   Usage Page (Key Codes)
    0x19, 0xE0,  //   Usage Minimum (224)
    0x29, 0xE7,  //   Usage Maximum (231)
    0x15, 0x00,  //   Logical Minimum (0)
    0x25, 0x01,  //   Logical Maximum (1)
    0x75, 0x01,  //   Report Size (1)
    0x95, 0x08,  //   Report Count (8)
    0x81, 0x02,  //   Input (Data, Variable, Absolute): modifier byte
    0x95, 0x01,  //   Report Count (1)
    0x75, 0x08,  //   Report Size (8)
    0x81, 0x01,  //   Input (Constant): reserved byte
    0x95, 0x05,  //   Report Count (5)
    0x75, 0x01,  //   Report Size (1)
    0x05, 0x08,  //   Usage Page (LEDs)
    0x19, 0x01,  //   Usage Minimum (1)
    0x29, 0x05,  //   Usage Maximum (5)
    0x91, 0x02,  //   Output (Data, Variable, Absolute): LED report
    0x95, 0x01,  //   Report Count (1)
    0x75, 0x03,  //   Report Size (3)
    0x91, 0x01,  //   Output (Constant): LED padding
    0x95, 0x06,  //   Report Count (6)
    0x75, 0x08,  //   Report Size (8)
    0x15, 0x00,  //   Logical Minimum (0)
    0x25, 0x65,  //   Logical Maximum (101)
    0x05, 0x07,  //   Usage Page (Key Codes)
    0x19, 0x00,  //   Usage Minimum (0)
    0x29, 0x65,  //   Usage Maximum (101)
    0x81, 0x00,  //   Input (Data, Array): key array
    0xC0,        // End Collection
};

// The three-button mouse of HID 1.11, appendix B.2.
inline const Bytes kMouse = {
    0x05, 0x01,  // Usage Page (Generic Desktop)
    0x09, 0x02,  // Usage (Mouse)
    0xA1, 0x01,  // Collection (Application)
    0x09, 0x01,  //   Usage (Pointer)
    0xA1, 0x00,  //   Collection (Physical)
    0x05, 0x09,  //     Usage Page (Buttons)
    0x19, 0x01,  //     Usage Minimum (1)
    0x29, 0x03,  //     Usage Maximum (3)
    0x15, 0x00,  //     Logical Minimum (0)
    0x25, 0x01,  //     Logical Maximum (1)
    0x95, 0x03,  //     Report Count (3)
    0x75, 0x01,  //     Report Size (1)
    0x81, 0x02,  //     Input (Data, Variable, Absolute)
    0x95, 0x01,  //     Report Count (1)
    0x75, 0x05,  //     Report Size (5)
    0x81, 0x01,  //     Input (Constant)
    0x05, 0x01,  //     Usage Page (Generic Desktop)
    0x09, 0x30,  //     Usage (X)
    0x09, 0x31,  //     Usage (Y)
    0x15, 0x81,  //     Logical Minimum (-127)
    0x25, 0x7F,  //     Logical Maximum (127)
    0x75, 0x08,  //     Report Size (8)
    0x95, 0x02,  //     Report Count (2)
    0x81, 0x06,  //     Input (Data, Variable, Relative)
    0xC0,        //   End Collection
    0xC0,        // End Collection
};

// A vendor collection on page 0xFF00: one input and one output array item of
// `count` bytes in report `id`. Usage 1 with 6 bytes is a short report of 7,
// usage 2 with 19 bytes a long report of 20.
inline Bytes vendorCollection(std::uint16_t page, std::uint16_t usage, std::uint8_t id,
                              std::uint8_t count) {
    return {
        0x06,
        static_cast<std::uint8_t>(page),
        static_cast<std::uint8_t>(page >> 8),  // Usage Page (vendor)
        0x0A,
        static_cast<std::uint8_t>(usage),
        static_cast<std::uint8_t>(usage >> 8),  // Usage
        0xA1,
        0x01,  // Collection (Application)
        0x85,
        id,  //   Report ID
        0x75,
        0x08,  //   Report Size (8)
        0x95,
        count,  //   Report Count
        0x15,
        0x00,  //   Logical Minimum (0)
        0x26,
        0xFF,
        0x00,  //   Logical Maximum (255)
        0x0A,
        static_cast<std::uint8_t>(usage),
        static_cast<std::uint8_t>(usage >> 8),  //   Usage
        0x81,
        0x00,  //   Input (Data, Array, Absolute)
        0x0A,
        static_cast<std::uint8_t>(usage),
        static_cast<std::uint8_t>(usage >> 8),  //   Usage
        0x91,
        0x00,  //   Output (Data, Array, Absolute)
        0xC0,  // End Collection
    };
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A receiver-like interface: short and long vendor collections in one
// descriptor, as one USB interface carries them.
inline Bytes vendorShortAndLong() {
    return concat({vendorCollection(0xFF00, 1, 0x10, 6), vendorCollection(0xFF00, 2, 0x11, 19)});
}

}  // namespace hidtest
