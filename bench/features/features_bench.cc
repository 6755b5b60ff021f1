// Prints, for a simulated mouse with a dozen features, the reports sent and
// the median time of a cold discovery (no cache file) and of a warm start
// (the file that the cold start left), with their ratio; once over a link
// that answers at once and once over one that takes a few milliseconds per
// answer, as a wireless link does.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "BenchStats.h"
#include "Session.h"

namespace {

using bench::Clock;
using bench::median;

constexpr int kRounds = 15;

struct Start {
    std::size_t reports = 0;
    double ms = 0;
};

// Starts a Device, discovers every feature, and ends it (which writes the
// cache file when it learnt something).
bool discover(loadtest::Session& s, Start& out) {
    const auto begin = Clock::now();
    const std::size_t found = s.start().features().size();
    out.ms = bench::since<std::milli>(begin);
    out.reports = s.sent().size();
    s.stop();
    return found > 0;
}

bool run(const char* link, const std::string& fault) {
    loadtest::Session s;
    if (!fault.empty() && s.machine.command(fault).rfind("ok", 0) != 0) {
        std::fprintf(stderr, "simulator refused: %s\n", fault.c_str());
        return false;
    }
    std::vector<double> cold_ms, warm_ms;
    Start cold, warm;
    for (int round = 0; round < kRounds; ++round) {
        std::remove(s.cache_file().c_str());
        if (!discover(s, cold) || !discover(s, warm)) {
            std::fprintf(stderr, "discovery failed\n");
            return false;
        }
        cold_ms.push_back(cold.ms);
        warm_ms.push_back(warm.ms);
    }
    const double c = median(cold_ms), w = median(warm_ms);
    std::printf("%s, %d rounds\n", link, kRounds);
    std::printf("  cold discovery: %3zu reports   median %8.2f ms\n", cold.reports, c);
    std::printf("  warm start:     %3zu reports   median %8.2f ms   (target: 3 reports)\n",
                warm.reports, w);
    std::printf("  ratio cold/warm: %.1fx reports, %.1fx time\n",
                static_cast<double>(cold.reports) / static_cast<double>(warm.reports), c / w);
    return true;
}

}  // namespace

int main() {
    if (!run("corded link", "")) return 1;
    if (!run("slow link, 8 ms per answer", "fault mouse delay 8")) return 1;
    return 0;
}
