// The upload header's inventory end to end: the real client, configured
// through the library's environment, finds a simulated desk through the
// hidraw binding, reads prepared /proc and /sys trees, and uploads; the
// loopback server's copy of the header is checked key by key.

#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "DescriptionJson.h"
#include "Machine.h"
#include "upload_support.h"

namespace {

using nlohmann::json;
using namespace qvtest;

// A simulated machine served by this process while it lives.
class SimDesk {
public:
    SimDesk(const std::string& description, const std::string& dir) {
        std::filesystem::create_directories(dir);
        machine_ = std::make_unique<devio_sim::Machine>(devio_sim::parseMachine(description), dir);
        const std::string why = machine_->start();
        EXPECT_EQ(why, "");
    }
    devio_sim::Machine& machine() { return *machine_; }

private:
    std::unique_ptr<devio_sim::Machine> machine_;
};

// Files under a root: path -> content; a content starting with "->" makes a
// symbolic link to the rest.
using Tree = std::map<std::string, std::string>;

void writeTree(const std::string& root, const Tree& tree) {
    std::filesystem::create_directories(root);
    for (const auto& [path, content] : tree) {
        const std::filesystem::path file = root + "/" + path;
        std::filesystem::create_directories(file.parent_path());
        if (content.rfind("->", 0) == 0) {
            std::filesystem::create_symlink(content.substr(2), file);
        } else {
            writeFile(file.string(), content);
        }
    }
}

// One client run that uploads one event, with the device library and the
// machine inventory pointed at the given roots; the header as received.
struct Upload {
    std::string text;
    json header;
};

std::optional<Upload> uploadOnce(UploadBench& bench, const std::string& devio_sys,
                                 const std::string& devio_dev, const std::string& machine_root) {
    ScopedEnv sys("DEVIO_SYSFS_ROOT", devio_sys);
    ScopedEnv dev("DEVIO_DEV_ROOT", devio_dev);
    ScopedEnv lock("DEVIO_LOCK_DIR", bench.dir.path());
    ScopedEnv proc("VANTSHRD_PROC_ROOT", machine_root + "/proc");
    ScopedEnv sysfs("VANTSHRD_SYSFS_ROOT", machine_root + "/sys");
    ScopedEnv drm("VANTSHRD_DRM_ROOT", machine_root + "/sys/class/drm");
    const std::size_t before = bench.server.uploads().size();
    const RunResult result = bench.run("{\"e\":1}\n.OFF\n");
    EXPECT_TRUE(exitedCleanly(result.status)) << result.output;
    const auto uploads = bench.server.uploads();
    if (uploads.size() != before + 1) {
        ADD_FAILURE() << "no upload arrived\n" << bench.traces();
        return std::nullopt;
    }
    Upload upload{uploads.back().headerText,
                  json::parse(uploads.back().headerText, nullptr, false)};
    EXPECT_FALSE(upload.header.is_discarded()) << upload.text;
    // Compact, with every object's keys in ascending byte order.
    EXPECT_EQ(upload.header.dump(), upload.text);
    return upload;
}

// A desk of corded devices: a complete mouse, a pad without the battery
// feature, a prototype with a type code beyond the known words, a keyboard
// in two pieces (its short and long reports on two collections), a device
// with no firmware entities, and a receiver with a keyboard behind it and a
// trackball whose link is down.
const char* const kDesk = R"({"devices": [
  {"id": "mouse", "name": "Vantrel Corded Mouse", "pid": "0xC08B", "device_type": "mouse",
   "entities": [
     {"type": 0, "prefix": "MPM", "version": "0x1203", "build": "0x0045", "rdnf": 1},
     {"type": 1, "prefix": "BOT", "version": "0x0102", "build": "0x0007", "rdnf": 0}],
   "entity_info": {"transport": 2, "pids": ["0x1A2B", "0xC08B"], "extended_model_id": 7},
   "battery": {"level": 80}},
  {"id": "pad", "name": "Vantrel Touch Pad", "pid": "0xB010", "device_type": "touch",
   "features": ["0x0001", "0x0003", "0x0005", "0x0020"]},
  {"id": "proto", "name": "Vantrel Prototype", "pid": "0xB011", "device_type": 14,
   "battery": {"level": 5}},
  {"id": "split", "name": "Vantrel Split Keyboard", "pid": "0xB021", "device_type": "keyboard",
   "collections": [
     {"usage_page": "0xFF00", "usage": 1, "report_id": 16, "size": 7},
     {"usage_page": "0xFF00", "usage": 2, "report_id": 17, "size": 20}]},
  {"id": "bare", "name": "Vantrel Bare Keys", "pid": "0xB030", "entities": []}],
 "receivers": [
  {"id": "dongle", "name": "Vantrel Receiver", "pid": "0xA105", "devices": [
    {"id": "keys", "name": "Vantrel Keys", "qid": "0x4B21", "slot": 1, "device_type": "keyboard",
     "battery": {"level": 35}},
    {"id": "ball", "name": "Vantrel Ball", "qid": "0x4D11", "slot": 2, "connected": false}]}]})";

json entity(int type, const char* prefix, const char* version, const char* build, int rdnf) {
    return {
        {"type", type}, {"prefix", prefix}, {"version", version}, {"build", build}, {"rdnf", rdnf}};
}

// What the desk's description says each device must show, busport aside
// (where a device sits is the library's to say).
json expectedDesk() {
    json mouse = {
        {"name", "Vantrel Corded Mouse"},
        {"bustype", 0},
        {"connected", true},
        {"devname", "Vantrel Corded Mouse"},
        {"devtype", "mouse"},
        {"battery", 80},
        {"transport", 2},
        {"pid1", "0x1a2b"},
        {"pid2", "0xc08b"},
        {"pid3", "0x0"},
        {"extid", 7},
        {"fws", {entity(0, "MPM", "1203", "0045", 1), entity(1, "BOT", "0102", "0007", 0)}}};
    // The others run the simulator's default firmware: one entity, no
    // transport, their own product id first.
    const auto plain = [](const char* name, const char* type, const char* pid, int battery,
                          int bustype = 0) {
        json device = {{"name", name},
                       {"bustype", bustype},
                       {"connected", true},
                       {"devname", name},
                       {"devtype", type},
                       {"transport", 0},
                       {"pid1", pid},
                       {"pid2", "0x0"},
                       {"pid3", "0x0"},
                       {"extid", 0},
                       {"fws", {entity(0, "MPM", "0100", "0000", 1)}}};
        if (battery >= 0) device["battery"] = battery;
        return device;
    };
    const json pad = plain("Vantrel Touch Pad", "touch", "0xb010", -1);  // no battery feature
    const json proto = plain("Vantrel Prototype", "14", "0xb011", 5);
    const json split = plain("Vantrel Split Keyboard", "keyboard", "0xb021", 90);
    // A receiver answers no features: the four keys every device has. So
    // has a device behind it whose link is down.
    const json receiver = {{"name", "Vantrel Receiver"}, {"bustype", 0}, {"connected", true}};
    const json keys = plain("Vantrel Keys", "keyboard", "0x4b21", 35, 1);
    const json ball = {{"name", "Vantrel Ball"}, {"bustype", 1}, {"connected", false}};
    return {mouse, pad, proto, split, receiver, keys, ball};
}

TEST(InventoryUpload, DeskDevicesWithEveryKeyTheirFeaturesGive) {
    UploadBench bench;
    SimDesk desk(kDesk, bench.dir.file("desk"));
    const auto upload = uploadOnce(bench, desk.machine().sysfsRoot(), desk.machine().devRoot(),
                                   bench.dir.file("no-machine"));
    ASSERT_TRUE(upload);
    ASSERT_TRUE(upload->header.contains("vant")) << upload->text;
    ASSERT_EQ(upload->header["vant"]["a"].size(), 8u) << upload->text;
    // One entry per device, the two pieces of the split keyboard as one.
    std::map<std::string, json> devices;
    std::map<std::string, json> busports;
    for (json device : upload->header["vant"]["a"]) {
        EXPECT_TRUE(device["busport"].is_number_unsigned()) << device.dump();
        busports[device.value("name", "")] = device["busport"];
        device.erase("busport");
        devices[device.value("name", "")] = device;
    }
    // Behind a receiver, the port is the device's number on it.
    EXPECT_EQ(busports["Vantrel Keys"], 1);
    EXPECT_EQ(busports["Vantrel Ball"], 2);
    for (const json& expected : expectedDesk()) {
        EXPECT_EQ(devices[expected["name"]], expected);
    }
    // Without entities the firmware list is empty. (The library loads a
    // device's features by asking for entity 0, which this one refuses, so
    // only the firmware keys are held here.)
    const json& bare = devices["Vantrel Bare Keys"];
    EXPECT_EQ(bare.value("name", ""), "Vantrel Bare Keys");
    EXPECT_EQ(bare.value("fws", json()), json::array()) << bare.dump();
    EXPECT_EQ(bare.value("pid1", ""), "0xb030") << bare.dump();
    // The traces frame the device inventory, before the machine sections.
    const std::string traces = bench.traces();
    const auto got = traces.find("bg got devio");
    EXPECT_LT(traces.find("bg get devio"), got) << traces;
}

// A device that never answers costs the library's whole retry budget per
// command (eleven passes of three seconds); one command's worth keeps the
// run under a minute and shows the same: the upload waits for the
// library's time-outs, no longer, and then happens with a valid header.
TEST(InventoryUpload, DeviceThatStopsAnsweringDelaysTheUploadButItHappens) {
    constexpr int kPasses = 11;
    UploadBench bench;
    SimDesk desk(kDesk, bench.dir.file("desk"));
    ASSERT_EQ(desk.machine().withFaults("pad",
                                        [](devio_sim::Faults& f) {
                                            f.drop(kPasses);
                                            return std::string();
                                        }),
              "");
    const auto start = std::chrono::steady_clock::now();
    const auto upload = uploadOnce(bench, desk.machine().sysfsRoot(), desk.machine().devRoot(),
                                   bench.dir.file("no-machine"));
    const auto took = std::chrono::steady_clock::now() - start;
    ASSERT_TRUE(upload);
    std::map<std::string, json> byName;
    for (const json& device : upload->header["vant"]["a"]) byName[device["name"]] = device;
    EXPECT_EQ(byName.size(), 8u) << upload->header["vant"].dump();
    EXPECT_EQ(byName["Vantrel Corded Mouse"].value("battery", -1), 80);
    EXPECT_TRUE(byName.count("Vantrel Touch Pad")) << upload->header["vant"].dump();
    EXPECT_GE(took, std::chrono::seconds(25)) << upload->header["vant"].dump();
}

// Prepared machines: the facts each file gives, and what a machine without
// them leaves out.
struct MachineCase {
    const char* name;
    Tree tree;
    std::string expected;             // keys of the header that must be so, as JSON
    std::vector<const char*> absent;  // keys that must not be there
};

const Tree kFullMachine = {
    {"proc/sys/kernel/osrelease", "6.1.0-18-amd64\n"},
    {"proc/stat", "cpu  10 0 10 100\nbtime 1496354861\nprocesses 77\n"},
    {"proc/meminfo", "MemTotal:        8388608 kB\nMemFree:          123 kB\n"},
    {"proc/cpuinfo",
     "processor\t: 0\nvendor_id\t: GenuineIntel\ncpu family\t: 6\nmodel\t\t: 142\n"
     "model name\t: Intel(R) Core(TM) i7-8650U CPU @ 1.90GHz\nstepping\t: 10\n"
     "cpu MHz\t\t: 2112.000\nphysical id\t: 0\ncpu cores\t: 4\n\n"
     "processor\t: 1\nvendor_id\t: GenuineIntel\nphysical id\t: 0\ncpu cores\t: 4\n\n"
     "processor\t: 2\nvendor_id\t: GenuineIntel\ncpu family\t: 6\nmodel\t\t: 85\n"
     "model name\t: Intel(R) Xeon(R) Gold 6130\nstepping\t: 4\ncpu MHz\t\t: 2100.493\n"
     "physical id\t: 1\ncpu cores\t: 16\n\n"},
    {"sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq", "1900000\n"},
    {"sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", "4200000\n"},
    {"sys/class/dmi/id/sys_vendor", "LENOVO\n"},
    {"sys/class/dmi/id/product_name", "20L8S02D00\n"},
    {"sys/class/drm/card0/device/vendor", "0x8086\n"},
    {"sys/class/drm/card0/device/device", "0x5917\n"},
    {"sys/class/drm/card0/device/driver", "->../../../bus/pci/drivers/i915"},
    {"sys/class/drm/card0-eDP-1/status", "connected\n"},
    {"sys/class/drm/card0-eDP-1/enabled", "enabled\n"},
    {"sys/class/drm/card0-eDP-1/modes", "1920x1080\n1600x900\n"},
    {"sys/class/drm/card0-HDMI-A-1/status", "disconnected\n"},
    {"sys/class/drm/card0-HDMI-A-1/enabled", "disabled\n"},
    {"sys/class/drm/card0-HDMI-A-1/modes", ""},
    {"sys/class/drm/card1/device/vendor", "0x1002\n"},
    {"sys/class/drm/card1/device/device", "0x73bf\n"},
    {"sys/class/drm/card1/device/driver", "->../../../bus/pci/drivers/amdgpu"},
    {"sys/class/drm/card1/device/mem_info_vram_total", "17163091968\n"},
    {"sys/class/drm/card1-DP-1/status", "connected\n"},
    {"sys/class/drm/card1-DP-1/enabled", "enabled\n"},
    {"sys/class/drm/card1-DP-1/modes", "2560x1440\n1920x1080\n"},
    // Attached, but no controller drives it: not part of the desktop.
    {"sys/class/drm/card1-DP-2/status", "connected\n"},
    {"sys/class/drm/card1-DP-2/enabled", "disabled\n"},
    {"sys/class/drm/card1-DP-2/modes", "1280x1024\n"},
    {"sys/class/drm/version", "drm 1.1.0 20060810\n"},
    {"sys/bus/usb/devices/usb1/version", " 2.00\n"},
    {"sys/bus/usb/devices/usb2/version", " 3.10\n"},
    {"sys/bus/usb/devices/1-0:1.0/bInterfaceNumber", "00\n"},
    {"sys/bus/usb/devices/1-1/idVendor", "2e5a\n"},
    {"sys/bus/usb/devices/1-1/idProduct", "1a2b\n"},
    {"sys/bus/usb/devices/1-1/bNumInterfaces", " 2\n"},
    {"sys/bus/usb/devices/1-1:1.0/bInterfaceNumber", "00\n"},
    {"sys/bus/usb/devices/1-1:1.1/bInterfaceNumber", "01\n"},
    {"sys/bus/usb/devices/1-2/idVendor", "2e5a\n"},
    {"sys/bus/usb/devices/1-2/idProduct", "1a2b\n"},
    {"sys/bus/usb/devices/1-2/bNumInterfaces", " 2\n"},
    {"sys/bus/usb/devices/1-2:1.0/bInterfaceNumber", "00\n"},
    {"sys/bus/usb/devices/1-2:1.1/bInterfaceNumber", "01\n"},
    {"sys/bus/usb/devices/2-1/idVendor", "0bda\n"},
    {"sys/bus/usb/devices/2-1/idProduct", "8153\n"},
    {"sys/bus/usb/devices/2-1/bNumInterfaces", " 1\n"},
};

const char* const kFullExpected = R"({
  "osmajor": "6", "osminor": "1", "osbuild": "0-18-amd64",
  "boottime": "2017-06-01T22:07:41.000000Z", "ostype": "linux",
  "locale": "de_CH", "codepage": "UTF-8", "oslanguage": "de_CH",
  "tzoffset": "120", "manufacturer": "LENOVO", "model": "20L8S02D00", "physmem": "8192",
  "video": {"a": [
    {"vidcompat": "i915", "vidname": "PCI\\VEN_8086&DEV_5917", "vidhorz": "1920", "vidvert": "1080"},
    {"vidcompat": "amdgpu", "vidname": "PCI\\VEN_1002&DEV_73BF", "vidram": "16368",
     "vidhorz": "2560", "vidvert": "1440"}]},
  "cpu": {"a": [
    {"name": "Intel(R) Core(TM) i7-8650U CPU @ 1.90GHz", "manufacturer": "GenuineIntel",
     "level": "6", "description": "MACHINE Family 6 Model 142 Stepping 10",
     "numberofcores": "4", "currentclockspeed": "1900", "maxclockspeed": "4200"},
    {"name": "Intel(R) Xeon(R) Gold 6130", "manufacturer": "GenuineIntel", "level": "6",
     "description": "MACHINE Family 6 Model 85 Stepping 4", "numberofcores": "16",
     "currentclockspeed": "2100"}]},
  "monitors": {"a": [{"vidhorz": 1920, "vidvert": 1080}, {"vidhorz": 2560, "vidvert": 1440}]},
  "usb": {"a": ["ROOT_HUB20", "ROOT_HUB30", "VID_0BDA&PID_8153", "VID_2E5A&PID_1A2B",
                "VID_2E5A&PID_1A2B&MI_00", "VID_2E5A&PID_1A2B&MI_01"]}})";

TEST(InventoryUpload, MachineSectionsFromPreparedTreesLeaveOutWhatIsNotExposed) {
    ScopedEnv locale("LC_ALL", "de_CH.UTF-8@euro");
    ScopedEnv zone("TZ", "XYZ-2");
    // A machine that exposes next to nothing: a small board's processor
    // list, a kernel release of two parts, a vendor without a product.
    const Tree sparse = {
        {"proc/sys/kernel/osrelease", "6.8\n"},
        {"proc/cpuinfo",
         "processor\t: 0\nBogoMIPS\t: 50.00\n\nprocessor\t: 1\n"
         "BogoMIPS\t: 50.00\n\nHardware\t: BCM2835\n"},
        {"sys/class/dmi/id/sys_vendor", "Raspberry\n"},
        {"sys/class/drm/card0-HDMI-A-1/status", "connected\n"},
        {"sys/class/drm/card0-HDMI-A-1/enabled", "enabled\n"},
        {"sys/class/drm/card0-HDMI-A-1/modes", "\n"},
        {"sys/class/drm/card0/device/vendor", "not a number\n"},
        {"sys/bus/usb/devices/usb1/version", "\n"},
        {"sys/bus/usb/devices/1-1/idVendor", "2e5a\n"},
    };
    const std::vector<MachineCase> cases = {
        {"full", kFullMachine, kFullExpected, {"installtime"}},
        {"sparse",
         sparse,
         R"({"osmajor": "", "osminor": "", "osbuild": "", "manufacturer": "Raspberry",
             "video": {"a": [{}]}, "cpu": {"a": [{}]}, "monitors": {"a": []},
             "usb": {"a": []}})",
         {"model", "physmem", "boottime", "installtime"}},
        {"empty",
         {},
         R"({"video": {"a": []}, "cpu": {"a": []}, "monitors": {"a": []}, "usb": {"a": []},
             "ostype": "linux", "tzoffset": "120"})",
         {"osmajor", "osminor", "osbuild", "boottime", "manufacturer", "model", "physmem"}},
    };
    UploadBench bench;
    const std::string noDevices = bench.dir.file("no-devices");
    std::filesystem::create_directories(noDevices + "/class/hidraw");
    for (const MachineCase& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string root = bench.dir.file(std::string("machine-") + c.name);
        writeTree(root, c.tree);
        const auto upload = uploadOnce(bench, noDevices, noDevices, root);
        ASSERT_TRUE(upload);
        const json& header = upload->header;
        // A processor's description begins with the machine's architecture.
        utsname names{};
        ASSERT_EQ(::uname(&names), 0);
        std::string expected = c.expected;
        for (std::size_t at; (at = expected.find("MACHINE")) != std::string::npos;) {
            expected.replace(at, 7, names.machine);
        }
        const json wanted = json::parse(expected);
        for (const auto& [key, value] : wanted.items()) {
            EXPECT_EQ(header.value(key, json()), value) << key;
        }
        for (const char* key : c.absent) EXPECT_FALSE(header.contains(key)) << key;
        const std::string bitness = header.value("osbitness", "");
        EXPECT_TRUE(bitness == "64" || bitness == "32") << bitness;
        // No device at all is an empty list, not a missing section.
        EXPECT_NE(upload->text.find("\"vant\":{\"a\":[]}"), std::string::npos) << upload->text;
    }
}

}  // namespace
