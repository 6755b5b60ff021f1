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
// read directly. Readings stay within a few microseconds of the monotonic
// clock, and never run backwards on one thread except to come back to it
// after a suspend.

namespace devio::xlog {

// How far readings may stray from the monotonic clock, and the wall
// clock's offset from its last measure, before the next refineClock takes
// them back at once.
inline constexpr uint64_t anchorBoundMicros = 1000;

// Any thread.
uint64_t monotonicMicros();

// The monotonic clock itself, read directly.
uint64_t systemMonotonicMicros();

// The wall clock in microseconds since the Unix epoch.
uint64_t wallClockMicros();

// Measures the counter against the monotonic clock, and publishes a better
// rate when the last one is a second old or more. Each time, checks the
// counter's time against the monotonic clock, and the wall clock's offset
// from it: after a suspend, or when the clock is set, both are taken back
// at once. Cheap when there is nothing to do. Called by the log thread only.
void refineClock();

// Whether readings come from the counter (after the first refineClock that
// had a long enough baseline, on a machine where the counter is trusted).
bool clockCountsTicks();

// The wall clock less the monotonic clock, in microseconds, as last
// measured: a record's date is its time plus this. Set by the start of
// logging, followed by refineClock.
int64_t wallClockOffset();
void setWallClockOffset(int64_t offsetMicros);

// Test hook: shifts the platform's counter by `counterTicks` and its wall
// clock by `wallMicros`, as a suspend does to them.
void shiftClocksForTest(int64_t counterTicks, int64_t wallMicros);

}  // namespace devio::xlog
