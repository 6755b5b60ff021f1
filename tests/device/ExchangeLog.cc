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

std::string check_serial(std::vector<Mark> marks) {
    std::stable_sort(marks.begin(), marks.end(),
                     [](const Mark& a, const Mark& b) { return a.ns < b.ns; });
    for (std::size_t i = 0; i < marks.size(); i += 2) {
        const Mark& w = marks[i];
        if (!w.is_write) return "answer without a command at mark " + std::to_string(i);
        if (i + 1 >= marks.size()) return "command without an answer at the end";
        const Mark& r = marks[i + 1];
        if (r.is_write) {
            return "two commands in flight: owner " + std::to_string(w.owner) + " and owner " +
                   std::to_string(r.owner) + " at mark " + std::to_string(i);
        }
        if (r.owner != w.owner || r.echo != w.echo) {
            return "answer to another exchange at mark " + std::to_string(i + 1);
        }
    }
    return {};
}

}  // namespace devtest
