// Video controllers: one row per DRM card. The PCI ids name the adapter in
// the platform's device id form, the kernel driver stands for the adapter's
// maker, video memory is known where the driver exposes it (amdgpu), and the
// resolution is that of the first display the card drives.

#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "drm_displays.h"
#include "machine_files.h"
#include "readers.h"

namespace qv::inventory {

namespace {

std::optional<unsigned> pciId(const std::string& path) {
    return hexId(firstLine(path).value_or(""));
}

Row cardRow(const std::string& card) {
    Row row;
    const std::string device = drmRoot() + "/" + card + "/device/";
    const auto vendor = pciId(device + "vendor");
    const auto product = pciId(device + "device");
    if (vendor && product) {
        char name[40];
        std::snprintf(name, sizeof name, "PCI\\VEN_%04X&DEV_%04X", *vendor, *product);
        row["name"] = name;
    }
    std::error_code ec;
    const auto driver = std::filesystem::read_symlink(device + "driver", ec);
    if (!ec && !driver.filename().empty()) row["adaptercompatibility"] = driver.filename();
    if (const auto vram = firstLine(device + "mem_info_vram_total")) row["adapterram"] = *vram;
    const auto displays = activeDisplays(card);
    if (!displays.empty()) {
        row["currenthorizontalresolution"] = std::to_string(displays.front().width);
        row["currentverticalresolution"] = std::to_string(displays.front().height);
    }
    return row;
}

}  // namespace

Rows videoControllerRows() {
    Rows rows;
    for (const std::string& card : drmCards()) rows.push_back(cardRow(card));
    return rows;
}

}  // namespace qv::inventory
