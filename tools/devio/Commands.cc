#include "Commands.h"

#include <future>
#include <iostream>

#include "DeviceFacts.h"
#include "Output.h"
#include "Render.h"
#include "Select.h"

namespace devio_tool {

using nlohmann::json;

int listDevices(const Options& options, const Devices& devices) {
    // One thread per device: a device that does not answer holds up only its
    // own row, and the whole list takes as long as the slowest device.
    std::vector<std::future<json>> rows;
    for (const auto& d : devices) {
        rows.push_back(std::async(std::launch::async, [d] { return DeviceFacts(d).summary(); }));
    }
    json list = json::array();
    for (auto& row : rows) list.push_back(row.get());
    if (devices.empty()) {
        // hidraw nodes are root's unless the rule gives them to the seat's user.
        std::cerr << "devio: no device found; without the udev rule 70-vantrel-devio.rules "
                     "only root can open them (see devio(1))\n";
    }
    print(options.json ? jsonLine(json{{"devices", list}}) : renderList(list));
    return kOk;
}

int showDevice(const Options& options, const Devices& devices) {
    auto device = deviceArgument(devices, options.operands.at(0));
    if (!device) return kFailed;
    DeviceFacts facts(device);
    const json details = facts.details();
    print(options.json ? jsonLine(details) : renderShow(details));
    for (const auto& e : facts.errors()) {
        std::cerr << "devio: " << device->path() << ": " << e.value("what", "") << ": "
                  << e.value("text", "") << "\n";
    }
    return facts.errors().empty() ? kOk : kFailed;
}

}  // namespace devio_tool
