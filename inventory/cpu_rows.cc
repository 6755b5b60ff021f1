// Processors: one row per physical package, as a socket is one processor to
// the management service. /proc/cpuinfo lists logical processors in blocks;
// clock speeds come from cpufreq where the kernel runs it.

#include <sys/utsname.h>

#include <sstream>

#include "machine_files.h"
#include "readers.h"

namespace qv::inventory {

namespace {

using Block = Row;  // one logical processor's "name : value" lines

std::vector<Block> cpuinfoBlocks() {
    std::vector<Block> blocks;
    const auto text = fileText(procRoot() + "/cpuinfo");
    if (!text) return blocks;
    std::istringstream lines(*text);
    Block block;
    for (std::string line; std::getline(lines, line);) {
        const auto colon = line.find(':');
        if (colon == std::string::npos) {
            if (!block.empty()) blocks.push_back(std::move(block));
            block.clear();
            continue;
        }
        block[trimmed(line.substr(0, colon))] = trimmed(line.substr(colon + 1));
    }
    if (!block.empty()) blocks.push_back(std::move(block));
    return blocks;
}

// kHz in a cpufreq file to MHz.
void addClock(Row& row, const char* key, const std::string& cpu, const char* file) {
    const auto khz = firstLine(sysfsRoot() + "/devices/system/cpu/cpu" + cpu + "/cpufreq/" + file);
    if (!khz) return;
    if (const auto value = leadingNumber(*khz)) row[key] = std::to_string(*value / 1000);
}

void copyField(Row& row, const char* key, const Block& block, const char* field) {
    if (auto value = property(block, field); value && !value->empty()) row[key] = *value;
}

Row packageRow(const Block& first, const std::string& machine) {
    Row row;
    copyField(row, "name", first, "model name");
    copyField(row, "manufacturer", first, "vendor_id");
    copyField(row, "level", first, "cpu family");
    copyField(row, "numberofcores", first, "cpu cores");
    const auto family = property(first, "cpu family");
    const auto model = property(first, "model");
    const auto stepping = property(first, "stepping");
    if (family && model && stepping) {
        row["description"] =
            machine + " Family " + *family + " Model " + *model + " Stepping " + *stepping;
    }
    const std::string cpu = property(first, "processor").value_or("0");
    addClock(row, "currentclockspeed", cpu, "scaling_cur_freq");
    if (!row.count("currentclockspeed")) {
        if (const auto mhz = property(first, "cpu MHz")) {
            if (const auto whole = leadingNumber(*mhz)) {
                row["currentclockspeed"] = std::to_string(*whole);
            }
        }
    }
    addClock(row, "maxclockspeed", cpu, "cpuinfo_max_freq");
    return row;
}

}  // namespace

Rows processorRows() {
    utsname names{};
    const std::string machine = ::uname(&names) == 0 ? names.machine : "";
    Rows rows;
    std::vector<std::string> packages;  // in the order first seen
    for (const Block& block : cpuinfoBlocks()) {
        // Blocks without a processor number are the summary some
        // architectures append ("Hardware", "Revision").
        if (!block.count("processor")) continue;
        const std::string package = property(block, "physical id").value_or("0");
        bool seen = false;
        for (const std::string& p : packages) seen = seen || p == package;
        if (seen) continue;
        packages.push_back(package);
        rows.push_back(packageRow(block, machine));
    }
    return rows;
}

}  // namespace qv::inventory
