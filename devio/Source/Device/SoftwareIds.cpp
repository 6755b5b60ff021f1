// The software id that marks our commands, and the move to another one when
// some other program on the machine turns out to use ours.

#include "Device/SoftwareIds.h"

#include "Manager/IDeviceManager.h"

namespace devio {

namespace {
// Id 0 marks notifications; a device has no other "no id".
constexpr unsigned kFallbackSwid = 15;
}  // namespace

unsigned SoftwareIds::current(const std::weak_ptr<IDeviceManager>& manager) {
    if (const unsigned id = swid.load(); id != 0) return id;
    std::lock_guard<std::mutex> lock(swid_mutex);
    if (swid == 0) {
        if (auto owner = manager.lock()) swid = owner->swid() & 0x0Fu;
    }
    const unsigned id = swid;
    return id != 0 ? id : kFallbackSwid;
}

bool SoftwareIds::apply_switch(unsigned& chosen) {
    if (!switch_swid) return false;
    std::lock_guard<std::mutex> lock(swid_mutex);
    // The id that other programs used least lately; on a tie the higher id,
    // since programs that pick an id tend to pick a low one.
    unsigned best_id = 0;
    std::uint32_t best = swid_use_counter;
    for (unsigned id = 1; id < swid_last_used.size(); ++id) {
        if (swid_last_used[id] <= best) {
            best = swid_last_used[id];
            best_id = id;
        }
    }
    swid = best_id;
    switch_swid = false;
    chosen = best_id;
    return true;
}

void SoftwareIds::note_other(unsigned sw) {
    std::lock_guard<std::mutex> lock(swid_mutex);
    ++swid_use_counter;
    swid_last_used[sw & 0x0Fu] = swid_use_counter;
}

}  // namespace devio
