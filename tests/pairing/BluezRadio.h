#pragma once

// Test support: the stories' radio side over BlueZ played by a mock on a
// private system bus. The platform bus is the real one, made as the manager
// makes it, so its own monitor hears BlueZ through the bus's device-change
// thread, and the stories' radios and devices are the mock's adapters and
// devices, matched by address to the simulated machine's nodes.

#include <map>
#include <memory>
#include <set>
#include <string>

#include "BluezMock.h"
#include "RadioWorld.h"

namespace pairtest {

class BluezRadio : public RadioWorld {
public:
    std::string trouble() override { return mock_.ok() ? std::string() : mock_.why(); }
    std::shared_ptr<devio::IHardwareBus> platform(
        simtest::SimMachine& sim, std::weak_ptr<devio::IDeviceManager> manager,
        std::shared_ptr<devio::IHardwareSecondaryBus> gatt) override;
    void add_radio(const std::string& radio) override;
    void remove_radio(const std::string& radio) override;
    void pair(const std::string& key, int bustype, const std::string& radio,
              const std::string& name) override;
    void connect(const std::string& key) override;
    void disconnect(const std::string& key) override;
    void unpair(const std::string& key, const std::string& radio) override;
    // The device's object in BlueZ.
    std::string gatt_path(const std::string& key) override;

private:
    struct Paired {
        std::string address;  // as BlueZ writes it
        int bustype;
        std::string radio;
        std::string name;
        bool connected = false;
    };
    Paired& find(const std::string& key);
    // Makes the device known and paired to `radio`'s adapter, as BlueZ
    // loads it from its store when the adapter comes.
    void know(const Paired& device, const std::string& radio);
    // Calls a method of the mock that BluezMock does not wrap.
    void mock_call(const char* member, const std::string& adapter);

    bttest::PrivateSystemBus system_bus_;
    bttest::BluezMock mock_{system_bus_};
    std::set<std::string> radios_;
    std::map<std::string, Paired> paired_;  // by key
};

}  // namespace pairtest
