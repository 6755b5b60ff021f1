#include "ExchangeLog.h"

#include <algorithm>
#include <fstream>

namespace devtest {

std::vector<Mark> exchange_marks(Recorder& rec, int owner) {
    std::vector<Mark> out;
    for (const auto& e : rec.events()) {
        const bool answer = !e.is_write && e.type == devio::IDevice::ReportResponse;
        const bool write = e.is_write && !e.report.empty() && e.err == devio::Success;
        if (!answer && !write) continue;
        const auto ns =
            std::chrono::duration_cast<std::chrono::nanoseconds>(e.at.time_since_epoch()).count();
        out.push_back({ns, write, e.report.size() > 6 ? e.report[6] : std::uint8_t{0}, owner});
    }
    return out;
}

void write_marks(const std::vector<Mark>& marks, const std::string& file) {
    std::ofstream out(file);
    for (const Mark& m : marks) {
        out << m.ns << ' ' << m.is_write << ' ' << int(m.echo) << ' ' << m.owner << '\n';
    }
}

std::vector<Mark> read_marks(const std::string& file) {
    std::vector<Mark> out;
    std::ifstream in(file);
    Mark m{};
    int echo = 0;
    while (in >> m.ns >> m.is_write >> echo >> m.owner) {
        m.echo = static_cast<std::uint8_t>(echo);
        out.push_back(m);
    }
    return out;
}

std::string check_serial(std::vector<Mark> marks, int min_gap_ms) {
    std::erase_if(marks, [](const Mark& m) { return !m.is_write; });
    std::stable_sort(marks.begin(), marks.end(),
                     [](const Mark& a, const Mark& b) { return a.ns < b.ns; });
    const std::int64_t min_gap_ns = std::int64_t{min_gap_ms} * 1000000;
    for (std::size_t i = 1; i < marks.size(); ++i) {
        const std::int64_t gap = marks[i].ns - marks[i - 1].ns;
        if (gap < min_gap_ns) {
            return "commands " + std::to_string(marks[i - 1].echo) + " (owner " +
                   std::to_string(marks[i - 1].owner) + ") and " + std::to_string(marks[i].echo) +
                   " (owner " + std::to_string(marks[i].owner) + ") went out " +
                   std::to_string(gap / 1000) + " us apart";
        }
    }
    return {};
}

}  // namespace devtest
