#pragma once

#include <mutex>
#include <string>

#include "Features/Feature.h"
#include "Features/IFeature0005DeviceNameType.h"

namespace devio {

// The device's marketing name and type. The name is kept in the object once
// read, and the chunk commands are constant queries, so a second reading
// costs no traffic.
//
// Threads: the caller's. `nameMutex` guards the name field and is held
// through a whole reading of the name, commands included; nothing else
// takes it, so it comes before the device's locks.
class Feature0005DeviceNameType : public Feature, public IFeature0005DeviceNameType {
public:
    static constexpr std::uint32_t kId = 0x0005;

    Feature0005DeviceNameType(Byte index, const std::shared_ptr<IDevice>& device);

    bool GetCount(unsigned* count) override;
    bool GetDeviceName(std::string* name) override;
    bool GetDeviceName(Byte charIndex, std::vector<Byte>* chunk) override;
    bool GetDeviceType(std::uint32_t* type) override;
    bool GetDeviceType(Byte* type) override;

private:
    // Nothing sets it: the name is read again each time (from the cache),
    // which leaves the first full reading in force.
    bool nameRead = false;
    std::mutex nameMutex;
    std::string name;
};

}  // namespace devio
