#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "Device/IDevice.h"
#include "Features/IFeature1F1FFirmwareProperty.h"

namespace devio_tool {

// What the tool reads from a device, as JSON with the key names that
// `--json` prints. Each call blocks on the device's commands, on the calling
// thread. A device found to carry new firmware is read again. A fact the
// device cannot give is left out, and its failure is
// added to "errors" (what, code, name, text). Once the device has not
// answered at all, nothing more is asked of it: every further command would
// wait out the library's full time-out again.
class DeviceFacts {
public:
    explicit DeviceFacts(std::shared_ptr<devio::IDevice> device);

    // What costs no traffic: path, bus, product id and product name.
    static nlohmann::json identity(devio::IDevice& device);
    // The row of `devio list`: identity, connection, marketing name, type,
    // battery level and main firmware; `full` adds the battery's capability.
    nlohmann::json summary(bool full = false);
    // Everything `devio show` prints.
    nlohmann::json details();

    // The device's friendly name, its default and its longest length.
    nlohmann::json friendlyName();
    // The firmware properties, each with value and limits.
    nlohmann::json properties();
    static std::string propertyName(devio::IFeature1F1FFirmwareProperty& property);
    static nlohmann::json propertyJson(devio::IFeature1F1FFirmwareProperty& property);

    bool silent() const { return silent_; }
    const nlohmann::json& errors() const { return errors_; }

private:
    template <class Interface>
    std::shared_ptr<Interface> feature(unsigned id, const char* what);
    // Runs `gather` once more when the device's firmware turned out to have
    // changed under it.
    nlohmann::json again(const std::function<nlohmann::json()>& gather);
    nlohmann::json summaryOnce(bool full);
    nlohmann::json detailsOnce();
    // Records the thread's last failure under `what`.
    void failed(const char* what);

    nlohmann::json battery(bool with_capability);
    nlohmann::json firmware();
    nlohmann::json featureTable();

    std::shared_ptr<devio::IDevice> device_;
    nlohmann::json errors_ = nlohmann::json::array();
    bool silent_ = false;
    bool vxp20_ = true;
    bool firmware_changed_ = false;
};

// The word for a bus type: corded, receiver, bluetooth, ble, gatt.
const char* busName(int bustype);
// The word for a device type byte, or "" for a value without one.
const char* deviceTypeName(unsigned type);

}  // namespace devio_tool
