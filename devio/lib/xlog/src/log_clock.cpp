#include "log_clock.h"

#include <atomic>
#include <mutex>

#include "log_platform.h"

namespace devio::xlog {

namespace {

uint64_t monotonicNanos() {
    return XLogPlatformSpecific::monotonicNanos();
}

uint64_t readCounter() {
    return XLogPlatformSpecific::readCounter();
}

// Each thread's last reading: a new rate, or a fall back to the system
// clock, must not make a thread's records go back in time.
thread_local uint64_t lastReading = 0;

uint64_t notBefore(uint64_t micros) {
    if (micros < lastReading) return lastReading;
    lastReading = micros;
    return micros;
}

}  // namespace

uint64_t systemMonotonicMicros() {
    return monotonicNanos() / 1000;
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
// them, so that readers take a consistent copy without a lock.
struct Conversion {
    std::atomic<uint32_t> sequence{0};
    std::atomic<uint64_t> ticks{0};
    std::atomic<uint64_t> micros{0};
    std::atomic<uint64_t> rate{0};
};
Conversion conversion;
std::atomic<bool> counting{false};

struct Sample {
    uint64_t ticks;
    uint64_t nanos;
};

// A counter reading and a clock reading, as close together as the machine
// allows: the tightest of a few tries.
Sample takeSample() {
    Sample best{0, 0};
    uint64_t bestSpread = UINT64_MAX;
    for (int i = 0; i < 5; ++i) {
        uint64_t before = readCounter();
        uint64_t nanos = monotonicNanos();
        uint64_t after = readCounter();
        if (after >= before && after - before < bestSpread) {
            bestSpread = after - before;
            best = {before + (after - before) / 2, nanos};
        }
    }
    return best;
}

uint64_t convert(uint64_t ticks, uint64_t fromTicks, uint64_t fromMicros, uint64_t rate) {
    return fromMicros +
           static_cast<uint64_t>((static_cast<Wide>(ticks - fromTicks) * rate) >> rateShift);
}

// A reader that sees any of the new values also sees the odd sequence
// number stored before them, and tries again.
void publish(uint64_t ticks, uint64_t micros, uint64_t rate) {
    uint32_t sequence = conversion.sequence.load(std::memory_order_relaxed);
    conversion.sequence.store(sequence + 1, std::memory_order_relaxed);
    conversion.ticks.store(ticks, std::memory_order_release);
    conversion.micros.store(micros, std::memory_order_release);
    conversion.rate.store(rate, std::memory_order_release);
    conversion.sequence.store(sequence + 2, std::memory_order_release);
}

// The refining side's own state.
std::mutex refineMutex;
bool started = false;
bool constantCounter = false;
Sample baseline{0, 0};
uint64_t lastRefineNanos = 0;

}  // namespace

uint64_t monotonicMicros() {
    if (!counting.load(std::memory_order_acquire)) return notBefore(systemMonotonicMicros());
    uint32_t sequence;
    uint64_t fromTicks, fromMicros, rate;
    do {
        sequence = conversion.sequence.load(std::memory_order_acquire);
        fromTicks = conversion.ticks.load(std::memory_order_acquire);
        fromMicros = conversion.micros.load(std::memory_order_acquire);
        rate = conversion.rate.load(std::memory_order_acquire);
    } while ((sequence & 1) != 0 ||
             sequence != conversion.sequence.load(std::memory_order_relaxed));
    uint64_t ticks = readCounter();
    // Behind the conversion's own reading: the counter was reset (a resume
    // from suspend), or this read ran ahead of the loads above.
    if (ticks < fromTicks) return notBefore(systemMonotonicMicros());
    return notBefore(convert(ticks, fromTicks, fromMicros, rate));
}

void refineClock() {
    std::lock_guard lock(refineMutex);
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
    uint64_t nanos = monotonicNanos();
    if (nanos - lastRefineNanos < (first ? firstBaselineNanos : refineIntervalNanos)) return;
    lastRefineNanos = nanos;

    Sample now = takeSample();
    if (!XLogPlatformSpecific::kernelKeepsTimeByCounter() || now.ticks <= baseline.ticks ||
        now.ticks < conversion.ticks.load(std::memory_order_relaxed)) {
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

}  // namespace devio::xlog
