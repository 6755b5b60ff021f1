#include "Linux/SdBusSource.h"

#include <poll.h>
#include <time.h>

#include <cstdint>

namespace devio::linux_hid {

SdBusSource::~SdBusSource() {
    for (sd_bus_slot* slot : slots_) sd_bus_slot_unref(slot);
    sd_bus_flush_close_unref(bus_);
}

int SdBusSource::fd() const {
    return sd_bus_get_fd(bus_);
}

short SdBusSource::events() const {
    const int e = sd_bus_get_events(bus_);
    return static_cast<short>(e < 0 ? POLLIN : e);
}

int SdBusSource::timeoutMs() const {
    std::uint64_t until = 0;
    if (sd_bus_get_timeout(bus_, &until) < 0 || until == UINT64_MAX) return -1;
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const std::uint64_t usec = static_cast<std::uint64_t>(now.tv_sec) * 1000000u +
                               static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
    return until <= usec ? 0 : static_cast<int>((until - usec + 999) / 1000);
}

void SdBusSource::drain(std::vector<NodeEvent>& out) {
    pending_ = &out;
    while (sd_bus_process(bus_, nullptr) > 0) {
    }
    pending_ = nullptr;
}

}  // namespace devio::linux_hid
