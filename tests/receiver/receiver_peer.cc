// Another process configuring a device behind the same simulated receiver:
// it starts the library on the machine named by the environment, configures
// the device with product id QID (the receiver's software present bit, the
// device's cookie), reads its cookie and battery level ROUNDS times, and hands it
// back. Exits 0 when every step succeeded.
//
// Usage: receiver_peer QID ROUNDS

#include <cstdio>
#include <cstdlib>
#include <string>

#include "Base/ErrorRecord.h"
#include "Device/IDevice.h"
#include "Features/IFeature.h"
#include "Features/IFeature0020ConfigChange.h"
#include "Features/IFeature1000BatteryUnifiedLevelStatus.h"
#include "Manager/CDevio.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s QID ROUNDS\n", argv[0]);
        return 2;
    }
    const int qid = static_cast<int>(std::strtol(argv[1], nullptr, 0));
    const int rounds = std::atoi(argv[2]);
    devio::cdevio.config_set(4, true);
    std::shared_ptr<devio::IDevice> device;
    for (const auto& d : devio::cdevio.devices()) {
        if (d->pid() == qid) device = d;
    }
    if (!device) {
        std::fprintf(stderr, "no device 0x%x\n", static_cast<unsigned>(qid));
        return 2;
    }
    auto change = device->feature_by_id(0x0020);
    auto cookie = std::dynamic_pointer_cast<devio::IFeature0020ConfigChange>(change);
    auto battery = std::dynamic_pointer_cast<devio::IFeature1000BatteryUnifiedLevelStatus>(
        device->feature_by_id(0x1000));
    if (!cookie || !battery) {
        std::fprintf(stderr, "features missing, err=%d\n",
                     static_cast<int>(devio::error_record().err));
        return 2;
    }
    int failed = device->set_configured(change) ? 0 : 1;
    for (int i = 0; i < rounds; ++i) {
        std::uint16_t value = 0;
        std::uint16_t level = 0, next = 0, status = 0;
        failed += cookie->GetCookie(&value) ? 0 : 1;
        failed += battery->GetBatteryLevelStatus(&level, &next, &status) ? 0 : 1;
    }
    failed += device->shutdown() ? 0 : 1;
    if (failed != 0) {
        std::fprintf(stderr, "%d steps failed, last err=%d\n", failed,
                     static_cast<int>(devio::error_record().err));
    }
    return failed == 0 ? 0 : 1;
}
