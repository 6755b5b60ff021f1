// The computer: its maker and model as the firmware tables name them, the
// physical memory the kernel counts, and the local time's offset from UTC.

#include <ctime>

#include "machine_files.h"
#include "readers.h"

namespace qv::inventory {

namespace {

// The kernel counts in kibibytes, whatever the unit beside it says.
void addMemory(Row& row) {
    const auto kib =
        leadingNumber(labelledValue(procRoot() + "/meminfo", "MemTotal:").value_or(""));
    if (kib) row["totalphysicalmemory"] = std::to_string(*kib * 1024);
}

// Minutes east of UTC, now.
void addTimeZone(Row& row) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    if (::localtime_r(&now, &local) == nullptr) return;
    row["currenttimezone"] = std::to_string(local.tm_gmtoff / 60);
}

}  // namespace

Rows computerSystemRows() {
    Row row;
    addTimeZone(row);
    const std::string dmi = sysfsRoot() + "/class/dmi/id/";
    if (const auto vendor = firstLine(dmi + "sys_vendor")) row["manufacturer"] = *vendor;
    if (const auto product = firstLine(dmi + "product_name")) row["model"] = *product;
    addMemory(row);
    return {row};
}

}  // namespace qv::inventory
