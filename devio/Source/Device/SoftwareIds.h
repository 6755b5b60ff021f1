#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

namespace devio {

class IDeviceManager;

// The software id that marks one device's commands, and the ids that other
// programs on the machine were seen using, so that a collision moves us to
// the id they used least lately.
//
// Threads: the engine's callers read the id and, before a ping, apply a
// requested switch; the read thread requests the switch and notes the id of
// every answer from another program. `swid_mutex` guards the choice and the
// use counts and is held with no other lock of ours. The id in use and the
// switch request are atomic, so reading them takes no lock: every cache hit
// reads the id.
class SoftwareIds {
public:
    // The id in use: the manager's library-wide id, asked on first use; 15
    // while there is none.
    unsigned current(const std::weak_ptr<IDeviceManager>& manager);
    // Another program answered under our id: the next ping moves us.
    void request_switch() { switch_swid = true; }
    bool switch_requested() const { return switch_swid; }
    // When a switch was requested, moves to the id that others used least
    // lately and gives it in `chosen`; false when there was nothing to do.
    bool apply_switch(unsigned& chosen);
    // Another program's answer carried software id `sw`.
    void note_other(unsigned sw);

private:
    std::atomic<bool> switch_swid{false};
    // 0 until chosen. Written under `swid_mutex`.
    std::atomic<std::uint32_t> swid{0};
    std::array<std::uint32_t, 16> swid_last_used{};  // guarded by swid_mutex
    std::uint32_t swid_use_counter = 0;              // guarded by swid_mutex
    std::mutex swid_mutex;
};

}  // namespace devio
