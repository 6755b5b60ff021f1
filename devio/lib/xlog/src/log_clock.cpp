#include "log_clock.h"

#include <atomic>
#include <mutex>

#include "log_platform.h"

namespace devio::xlog {

namespace {

// Shifts of the platform's clocks by a test.
std::atomic<int64_t> counterShift{0};
std::atomic<int64_t> wallShift{0};

uint64_t monotonicNanos() {
    return XLogPlatformSpecific::monotonicNanos();
}

uint64_t readCounter() {
    return XLogPlatformSpecific::readCounter() +
           static_cast<uint64_t>(counterShift.load(std::memory_order_relaxed));
}

// Each thread's last reading, and the anchor it was read under: a new rate,
// or a fall back to the system clock, must not make a thread's records go
// back in time. A new anchor may: it takes back readings that had run ahead
// of the monotonic clock.
thread_local uint64_t lastReading = 0;
thread_local uint32_t lastAnchor = 0;

uint64_t notBefore(uint64_t micros, uint32_t anchor) {
    if (micros < lastReading && anchor == lastAnchor) return lastReading;
    lastReading = micros;
    lastAnchor = anchor;
    return micros;
}

}  // namespace

uint64_t systemMonotonicMicros() {
    return monotonicNanos() / 1000;
}

uint64_t wallClockMicros() {
    return XLogPlatformSpecific::wallClockMicros() +
           static_cast<uint64_t>(wallShift.load(std::memory_order_relaxed));
}

namespace {

__extension__ typedef unsigned __int128 Wide;

// The rate is microseconds per tick, scaled by 2^rateShift.
constexpr unsigned rateShift = 52;
// The first rate is measured over at least this long; the error of one
// pair of readings is tens of nanoseconds, a few parts per million of it.
constexpr uint64_t firstBaselineNanos = 50'000'000;
constexpr uint64_t refineIntervalNanos = 1'000'000'000;

// The published conversion: a tick count, the microseconds it stands for,
// and the rate. The sequence number is odd while the log thread changes
// them, so that readers take a consistent copy without a lock. `anchor`
// counts the times the clock was taken back to the monotonic clock.
struct Conversion {
    std::atomic<uint32_t> sequence{0};
    std::atomic<uint32_t> anchor{0};
    std::atomic<uint64_t> ticks{0};
    std::atomic<uint64_t> micros{0};
    std::atomic<uint64_t> rate{0};
};
Conversion conversion;
std::atomic<bool> counting{false};

// The wall clock less the monotonic clock.
std::atomic<int64_t> wallOffset{0};
std::atomic<bool> wallOffsetKnown{false};

struct Sample {
    uint64_t ticks;
    uint64_t nanos;
    uint64_t spread;  // ticks between the two counter readings around the clock's
};

// A counter reading and a clock reading, as close together as the machine
// allows: the tightest of a few tries.
Sample takeSample() {
    Sample best{0, 0, UINT64_MAX};
    for (int i = 0; i < 5; ++i) {
        uint64_t before = readCounter();
        uint64_t nanos = monotonicNanos();
        uint64_t after = readCounter();
        if (after >= before && after - before < best.spread)
            best = {before + (after - before) / 2, nanos, after - before};
    }
    return best;
}

uint64_t convert(uint64_t ticks, uint64_t fromTicks, uint64_t fromMicros, uint64_t rate) {
    return fromMicros +
           static_cast<uint64_t>((static_cast<Wide>(ticks - fromTicks) * rate) >> rateShift);
}

// A reader that sees any of the new values also sees the odd sequence
// number stored before them, and tries again.
void publish(uint64_t ticks, uint64_t micros, uint64_t rate, bool newAnchor = false) {
    uint32_t sequence = conversion.sequence.load(std::memory_order_relaxed);
    conversion.sequence.store(sequence + 1, std::memory_order_relaxed);
    if (newAnchor)
        conversion.anchor.store(conversion.anchor.load(std::memory_order_relaxed) + 1,
                                std::memory_order_release);
    conversion.ticks.store(ticks, std::memory_order_release);
    conversion.micros.store(micros, std::memory_order_release);
    conversion.rate.store(rate, std::memory_order_release);
    conversion.sequence.store(sequence + 2, std::memory_order_release);
}

// The refining side's own state.
std::mutex refineMutex;
bool started = false;
bool constantCounter = false;
Sample baseline{0, 0, 0};
uint64_t lastRefineNanos = 0;

uint64_t apart(uint64_t a, uint64_t b) {
    return a > b ? a - b : b - a;
}

// Readers go back to the system clock, and the rate is measured afresh from
// here. The new anchor lets each thread's readings go back once, to the
// system clock's; no counter reading converts by the conversion published
// with it, so that a reader that sees the new anchor reads the system clock.
void startOver(const Sample& now) {
    publish(UINT64_MAX, 0, 0, true);
    counting.store(false, std::memory_order_release);
    baseline = now;
    lastRefineNanos = now.nanos;
}

// In suspend-to-idle the counter runs on while the monotonic clock stops;
// after it, the counter's time is ahead by the time suspended, and a rate
// measured across it is wrong too. Also caught: a counter reset, and a
// first rate that a suspend spoiled.
bool counterParted() {
    uint64_t fromTicks = conversion.ticks.load(std::memory_order_relaxed);
    Sample now = takeSample();
    uint64_t rate = conversion.rate.load(std::memory_order_relaxed);
    if (now.ticks < fromTicks) {
        startOver(now);
        return true;
    }
    // A sample taken across a preemption proves nothing either way.
    if (convert(now.spread, 0, 0, rate) > anchorBoundMicros / 4) return false;
    uint64_t predicted =
        convert(now.ticks, fromTicks, conversion.micros.load(std::memory_order_relaxed), rate);
    if (apart(predicted, now.nanos / 1000) <= anchorBoundMicros) return false;
    startOver(now);
    return true;
}

// The date of a record is its time plus the wall clock's offset from the
// monotonic clock. That offset moves when the clock is set, and by the time
// suspended (the monotonic clock stops then, the wall clock does not).
void followWallClock() {
    uint64_t before = systemMonotonicMicros();
    uint64_t wall = wallClockMicros();
    uint64_t after = systemMonotonicMicros();
    auto offset = static_cast<int64_t>(wall - before / 2 - after / 2);
    int64_t moved = offset - wallOffset.load(std::memory_order_relaxed);
    if (!wallOffsetKnown.load(std::memory_order_relaxed) ||
        static_cast<uint64_t>(moved < 0 ? -moved : moved) > anchorBoundMicros) {
        wallOffset.store(offset, std::memory_order_relaxed);
        wallOffsetKnown.store(true, std::memory_order_relaxed);
    }
}

}  // namespace

uint64_t monotonicMicros() {
    if (!counting.load(std::memory_order_acquire))
        return notBefore(systemMonotonicMicros(),
                         conversion.anchor.load(std::memory_order_acquire));
    uint32_t sequence, anchor;
    uint64_t fromTicks, fromMicros, rate;
    do {
        sequence = conversion.sequence.load(std::memory_order_acquire);
        anchor = conversion.anchor.load(std::memory_order_acquire);
        fromTicks = conversion.ticks.load(std::memory_order_acquire);
        fromMicros = conversion.micros.load(std::memory_order_acquire);
        rate = conversion.rate.load(std::memory_order_acquire);
    } while ((sequence & 1) != 0 ||
             sequence != conversion.sequence.load(std::memory_order_relaxed));
    uint64_t ticks = readCounter();
    // Behind the conversion's own reading: the counter was reset (a resume
    // from suspend), or this read ran ahead of the loads above.
    if (ticks < fromTicks) return notBefore(systemMonotonicMicros(), anchor);
    return notBefore(convert(ticks, fromTicks, fromMicros, rate), anchor);
}

void refineClock() {
    std::lock_guard lock(refineMutex);
    followWallClock();
    if (!started) {
        started = true;
        constantCounter = XLogPlatformSpecific::counterRunsSteadily();
        if (!constantCounter) return;
        baseline = takeSample();
        lastRefineNanos = baseline.nanos;
        return;
    }
    if (!constantCounter) return;
    bool first = !counting.load(std::memory_order_relaxed);
    if (!first && counterParted()) return;
    uint64_t nanos = monotonicNanos();
    if (nanos - lastRefineNanos < (first ? firstBaselineNanos : refineIntervalNanos)) return;
    lastRefineNanos = nanos;

    Sample now = takeSample();
    if (!XLogPlatformSpecific::kernelKeepsTimeByCounter() || now.ticks <= baseline.ticks) {
        // Read the system clock again, and measure afresh from here.
        counting.store(false, std::memory_order_release);
        baseline = now;
        return;
    }
    uint64_t rate =
        static_cast<uint64_t>((static_cast<Wide>(now.nanos - baseline.nanos) << rateShift) /
                              (static_cast<Wide>(now.ticks - baseline.ticks) * 1000));
    uint64_t micros = now.nanos / 1000;
    if (!first) {
        // Never behind what the old rate gives for the same moment: readers
        // of the old conversion may have handed that out already.
        uint64_t old = convert(now.ticks, conversion.ticks.load(std::memory_order_relaxed),
                               conversion.micros.load(std::memory_order_relaxed),
                               conversion.rate.load(std::memory_order_relaxed));
        if (old > micros) micros = old;
    }
    publish(now.ticks, micros, rate);
    counting.store(true, std::memory_order_release);
}

bool clockCountsTicks() {
    return counting.load(std::memory_order_acquire);
}

int64_t wallClockOffset() {
    return wallOffset.load(std::memory_order_relaxed);
}

void setWallClockOffset(int64_t offsetMicros) {
    std::lock_guard lock(refineMutex);
    wallOffset.store(offsetMicros, std::memory_order_relaxed);
    wallOffsetKnown.store(true, std::memory_order_relaxed);
}

void shiftClocksForTest(int64_t counterTicks, int64_t wallMicros) {
    counterShift.store(counterTicks, std::memory_order_relaxed);
    wallShift.store(wallMicros, std::memory_order_relaxed);
}

}  // namespace devio::xlog
