// Device: the software id that marks our commands, and the move to another
// one when some other program on the machine turns out to use ours.

#include "Base/ClassLog.h"
#include "Device/Device.h"

namespace devio {

namespace {
// Id 0 marks notifications; a device has no other "no id".
constexpr unsigned kFallbackSwid = 15;
}  // namespace

unsigned Device::swid() {
    if (const unsigned id = swid_.load(); id != 0) return id;
    std::lock_guard<std::mutex> lock(swid_mutex);
    if (swid_ == 0) {
        if (auto manager = manager_.lock()) swid_ = manager->swid() & 0x0Fu;
    }
    const unsigned id = swid_;
    return id != 0 ? id : kFallbackSwid;
}

unsigned Device::apply_swid_switch() {
    if (switch_swid) {
        std::lock_guard<std::mutex> lock(swid_mutex);
        // The id that other programs used least lately; on a tie the higher
        // id, since programs that pick an id tend to pick a low one.
        unsigned best_id = 0;
        std::uint32_t best = swid_use_counter;
        for (unsigned id = 1; id < swid_last_used.size(); ++id) {
            if (swid_last_used[id] <= best) {
                best = swid_last_used[id];
                best_id = id;
            }
        }
        swid_ = best_id;
        switch_swid = false;
        DEVIO_LOG("Device", 2, "apply_swid_switch", "switching to swid 0x%x", best_id);
    }
    return swid();
}

void Device::note_other_swid(unsigned sw) {
    std::lock_guard<std::mutex> lock(swid_mutex);
    ++swid_use_counter;
    swid_last_used[sw & 0x0Fu] = swid_use_counter;
}

}  // namespace devio
