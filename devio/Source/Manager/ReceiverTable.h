#pragma once

namespace devio {

// The maker's wireless receivers by product id, with what their bus needs:
// how many devices pair with one, and the protocol byte of its registers.
// Receivers with a shared name serialise the traffic of everything paired to
// them across processes under one machine-wide mutex.
struct ReceiverProduct {
    int pid;
    unsigned maxDevices;
    unsigned protocolByte;
    bool shared_name;
};

inline constexpr ReceiverProduct kReceiverProducts[] = {
    {0xA101, 6, 4, true},   {0xA102, 2, 4, true},   {0xA103, 2, 10, true},  {0xA104, 1, 12, false},
    {0xA105, 7, 12, false}, {0xA106, 1, 12, false}, {0xA107, 1, 13, false}, {0xA108, 1, 4, false},
};

// The receiver with this product id, or null.
inline const ReceiverProduct* find_receiver(int pid) {
    for (const auto& r : kReceiverProducts) {
        if (r.pid == pid) return &r;
    }
    return nullptr;
}

}  // namespace devio
