#include "Device/VxpReport.h"

#include <algorithm>

namespace devio::vxp {

bool header_matches(const std::vector<Byte>& report, const std::vector<Byte>& command) {
    if (report.empty() || command.empty()) return false;
    for (std::size_t i = 1; i <= 3; ++i) {
        if (byte_at(report, i) != byte_at(command, i)) return false;
    }
    return true;
}

bool payload_matches(const std::vector<Byte>& report, const std::vector<Byte>& command,
                     const std::vector<std::uint32_t>& match) {
    for (std::uint32_t i : match) {
        const std::size_t at = static_cast<std::size_t>(i) + 4;
        if (byte_at(report, at) != byte_at(command, at)) return false;
    }
    return true;
}

bool is_error_response(const std::vector<Byte>& report, const std::vector<Byte>& cmd) {
    const Byte kind = byte_at(report, 2);
    const bool echoes =
        byte_at(report, 3) == byte_at(cmd, 2) && byte_at(report, 4) == byte_at(cmd, 3);
    if (!echoes) return false;
    if (kind == kVxp10ErrorSubId) {
        // A receiver answers for its devices with index 0 where we wrote
        // 0xFF; only the register protocol does that.
        return byte_at(report, 1) == byte_at(cmd, 1) ||
               (byte_at(report, 1) == 0 && byte_at(cmd, 1) == kOwnIndex);
    }
    return kind == kVxp20ErrorIndex && byte_at(report, 1) == byte_at(cmd, 1);
}

std::vector<Byte> cache_key(std::vector<Byte> report) {
    if (report.size() > 3) report[3] = static_cast<Byte>((report[3] & 0xF0u) | 0x0Au);
    return report;
}

namespace {
Byte key_byte(const std::vector<Byte>& r, std::size_t i) {
    return i == 3 ? static_cast<Byte>((r[3] & 0xF0u) | 0x0Au) : r[i];
}

// <0, 0, >0 as the probe's key form sorts before, with or after `key`.
int compare_probe(const std::vector<Byte>& probe, const std::vector<Byte>& key) {
    const std::size_t n = std::min(probe.size(), key.size());
    for (std::size_t i = 0; i < n; ++i) {
        const Byte p = key_byte(probe, i);
        if (p != key[i]) return p < key[i] ? -1 : 1;
    }
    return probe.size() < key.size() ? -1 : (probe.size() > key.size() ? 1 : 0);
}
}  // namespace

bool CacheKeyLess::operator()(const CacheProbe& a, const std::vector<Byte>& b) const {
    return compare_probe(a.command, b) < 0;
}

bool CacheKeyLess::operator()(const std::vector<Byte>& a, const CacheProbe& b) const {
    return compare_probe(b.command, a) > 0;
}

}  // namespace devio::vxp
