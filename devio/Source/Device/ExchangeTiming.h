#pragma once

#include <cstdint>

namespace devio {

// How long the command engine waits for an answer, how many passes a command
// gets, and how long it backs off before the ping of a retry. Every device of
// the product runs on these defaults; only a test rig passes other values,
// so that a test about the engine's logic does not wait seconds of real time
// for each lost answer.
struct ExchangeTiming {
    // One time-out for every transport.
    std::int32_t response_timeout_ms = 3000;
    // Passes after the first, so at most retries + 1 in all.
    std::int32_t retries = 10;
    // Before the ping of pass n: ping_delay_ms << n, and a jitter below
    // ping_jitter_ms (none at 0), so that two processes do not retry in step.
    std::int32_t ping_delay_ms = 10;
    std::int32_t ping_jitter_ms = 500;
};

}  // namespace devio
