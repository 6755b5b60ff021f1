// The device inventory in-process, over the real library, the hidraw
// binding and simulated hardware, where the test steers the library between
// its start and the inventory: a device whose name request fails, and a
// device that the library holds disconnected.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "DescriptionJson.h"
#include "Device/IDevice.h"
#include "ErrorBytes.h"
#include "Machine.h"
#include "Manager/CDevio.h"
#include "header_sections.h"

namespace {

using nlohmann::json;

const char* const kMouse = R"({"devices": [
  {"id": "mouse", "name": "Vantrel Corded Mouse", "pid": "0xC08B", "device_type": "mouse",
   "battery": {"level": 60}}]})";

class TempMachine {
public:
    TempMachine() {
        char name[] = "/tmp/inventory-XXXXXX";
        dir_ = ::mkdtemp(name);
        machine_ = std::make_unique<devio_sim::Machine>(devio_sim::parseMachine(kMouse),
                                                        dir_ + "/machine");
        EXPECT_EQ(machine_->start(), "");
        ::setenv("DEVIO_SYSFS_ROOT", machine_->sysfsRoot().c_str(), 1);
        ::setenv("DEVIO_DEV_ROOT", machine_->devRoot().c_str(), 1);
        ::setenv("DEVIO_LOCK_DIR", dir_.c_str(), 1);
    }
    ~TempMachine() {
        machine_.reset();
        std::filesystem::remove_all(dir_);
    }
    devio_sim::Machine& machine() { return *machine_; }

private:
    std::string dir_;
    std::unique_ptr<devio_sim::Machine> machine_;
};

json inventory() {
    json header = json::object();
    qv::inventory::addDeviceInventory(header);
    return header["vant"]["a"];
}

TEST(DeviceInventory, FailedCallsLeaveTheirInitialValuesAndADisconnectedDeviceHasFourKeys) {
    TempMachine sim;
    // The inventory's configuration, so that its own setting changes nothing
    // (a change would build the devices anew).
    for (unsigned item : {5u, 4u, 0u}) devio::cdevio.config_set(item, true);
    const auto devices = devio::cdevio.devices();
    ASSERT_EQ(devices.size(), 1u);
    // The features are looked up while the device answers...
    ASSERT_TRUE(devices[0]->feature_by_id(0x0005));
    ASSERT_TRUE(devices[0]->feature_by_id(0x1000));
    // ... and from here it refuses every command.
    ASSERT_EQ(sim.machine().withFaults("mouse",
                                       [](devio_sim::Faults& f) {
                                           f.error(2, devio_sim::vxp20::kNotAllowed,
                                                   devio_sim::Faults::kForever);
                                           return std::string();
                                       }),
              "");
    const json refused = inventory().at(0);
    EXPECT_EQ(refused.value("devname", "?"), "") << refused.dump();
    EXPECT_EQ(refused.value("devtype", "?"), "keyboard") << refused.dump();  // type byte 0
    EXPECT_EQ(refused.value("battery", -1), 0) << refused.dump();

    ASSERT_EQ(sim.machine().withFaults("mouse",
                                       [](devio_sim::Faults& f) {
                                           f.clear();
                                           return std::string();
                                       }),
              "");
    const json answered = inventory().at(0);
    EXPECT_EQ(answered.value("devname", "?"), "Vantrel Corded Mouse") << answered.dump();
    EXPECT_EQ(answered.value("battery", -1), 60) << answered.dump();

    // The session lost the console; a host that pumps the run loop has the
    // device tell it.
    devio::cdevio.set_active(false);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    json entry;
    do {
        devio::cdevio.call_event_from_runloop();
        entry = inventory().at(0);
        if (!entry.value("connected", true)) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } while (std::chrono::steady_clock::now() < until);
    EXPECT_EQ(entry, (json{{"name", "Vantrel Corded Mouse"},
                           {"bustype", 0},
                           {"busport", entry.value("busport", 0u)},
                           {"connected", false}}));
}

}  // namespace
