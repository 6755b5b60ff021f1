#pragma once

#include <cstdint>

// The clock of log records: the system's monotonic clock, in microseconds.
//
// Reading the monotonic clock through the C library costs a log call more
// than anything but formatting its message. Where the processor's time stamp
// counter runs at one constant rate on every core, and the kernel itself
// keeps time by it, the clock is read from the counter instead and converted
// with a rate that the log thread measures against the monotonic clock,
// over a baseline that grows as the process runs. Until a rate is known, and
// on machines where the counter cannot be trusted, the monotonic clock is
// read directly. Readings never run backwards on one thread, and stay within
// a few microseconds of the monotonic clock.

namespace devio::xlog {

// Any thread.
uint64_t monotonicMicros();

// The monotonic clock itself, read directly.
uint64_t systemMonotonicMicros();

// Measures the counter against the monotonic clock, and publishes a better
// rate when the last one is a second old or more. Cheap when there is
// nothing to do. Called by the log thread only.
void refineClock();

// Whether readings come from the counter (after the first refineClock that
// had a long enough baseline, on a machine where the counter is trusted).
bool clockCountsTicks();

}  // namespace devio::xlog
