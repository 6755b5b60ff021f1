#include <time.h>

#include <fstream>
#include <string>

#include "log_platform.h"

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

// The log facility's clocks on Linux: the kernel's clocks through the vDSO,
// and on x86-64 the time stamp counter.

namespace devio {

uint64_t XLogPlatformSpecific::monotonicNanos() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(ts.tv_nsec);
}

uint64_t XLogPlatformSpecific::wallClockMicros() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1'000'000 + static_cast<uint64_t>(ts.tv_nsec) / 1000;
}

void XLogPlatformSpecific::localTime(int64_t seconds, std::tm& out) {
    time_t t = static_cast<time_t>(seconds);
    localtime_r(&t, &out);
}

#if defined(__x86_64__)

bool XLogPlatformSpecific::counterRunsSteadily() {
    // constant_tsc: one rate whatever the core's frequency; nonstop_tsc: it
    // runs on in the deep idle states.
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line;
    while (std::getline(cpuinfo, line)) {
        if (line.rfind("flags", 0) != 0) continue;
        std::string flags = line + " ";
        return flags.find(" constant_tsc ") != std::string::npos &&
               flags.find(" nonstop_tsc ") != std::string::npos;
    }
    return false;
}

bool XLogPlatformSpecific::kernelKeepsTimeByCounter() {
    std::ifstream source("/sys/devices/system/clocksource/clocksource0/current_clocksource");
    std::string name;
    return static_cast<bool>(source >> name) && name == "tsc";
}

uint64_t XLogPlatformSpecific::readCounter() {
    return __rdtsc();
}

#else

bool XLogPlatformSpecific::counterRunsSteadily() {
    return false;
}

bool XLogPlatformSpecific::kernelKeepsTimeByCounter() {
    return false;
}

uint64_t XLogPlatformSpecific::readCounter() {
    return 0;
}

#endif

}  // namespace devio
