// Fuzz target: any bytes as the kernel files the machine inventory reads.
// The input is cut at 0xFF bytes into the contents of the files below, in
// that order, and written into a machine tree; the sections built from it
// must be JSON objects, every key a string or an array as its table says,
// and nothing may throw.

#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

// The fuzz build names only the device library's include folder.
#include "../../inventory/header_sections.h"

namespace {

const char* const kFiles[] = {
    "proc/sys/kernel/osrelease",
    "proc/stat",
    "proc/meminfo",
    "proc/cpuinfo",
    "sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq",
    "sys/class/dmi/id/sys_vendor",
    "sys/class/drm/card0/device/vendor",
    "sys/class/drm/card0/device/device",
    "sys/class/drm/card0/device/mem_info_vram_total",
    "sys/class/drm/card0-DP-1/status",
    "sys/class/drm/card0-DP-1/enabled",
    "sys/class/drm/card0-DP-1/modes",
    "sys/bus/usb/devices/usb1/version",
    "sys/bus/usb/devices/1-1/idVendor",
    "sys/bus/usb/devices/1-1/idProduct",
    "sys/bus/usb/devices/1-1/bNumInterfaces",
    "sys/bus/usb/devices/1-1:1.0/bInterfaceNumber",
};

std::string& treeDir() {
    static std::string dir;
    return dir;
}

std::string treeRoot() {
    static const std::string root = [] {
        char name[] = "/tmp/machine-fuzz-XXXXXX";
        const std::string dir = ::mkdtemp(name);
        ::setenv("VANTSHRD_PROC_ROOT", (dir + "/proc").c_str(), 1);
        ::setenv("VANTSHRD_SYSFS_ROOT", (dir + "/sys").c_str(), 1);
        ::unsetenv("VANTSHRD_DRM_ROOT");
        treeDir() = dir;
        std::atexit([] { std::filesystem::remove_all(treeDir()); });
        return dir;
    }();
    return root;
}

bool allStrings(const nlohmann::json& object) {
    for (const auto& [key, value] : object.items()) {
        if (!value.is_string() && !value.is_number_unsigned()) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string root = treeRoot();
    std::size_t at = 0;
    for (const char* file : kFiles) {
        std::size_t end = at;
        while (end < size && data[end] != 0xFF) ++end;
        const std::filesystem::path path = root + "/" + file;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char*>(data + std::min(at, size)),
                   static_cast<std::streamsize>(std::min(end, size) - std::min(at, size)));
        at = end + 1;
    }
    nlohmann::json header = nlohmann::json::object();
    qv::inventory::addMachineSections(header);
    qv::inventory::addUsbInventory(header);
    for (const char* section : {"video", "cpu", "monitors"}) {
        for (const auto& row : header.at(section).at("a")) {
            if (!row.is_object() || !allStrings(row)) __builtin_trap();
        }
    }
    for (const auto& name : header.at("usb").at("a")) {
        if (!name.is_string()) __builtin_trap();
    }
    return 0;
}
