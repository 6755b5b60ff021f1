// Another process using the library on the same simulated device: sends
// `count` pings with echo bytes from `first_echo` on, and writes what it saw
// to `out_file`. Exits 0 when every command succeeded.
//
// Usage: device_peer SYSFS_ROOT DEV_ROOT NODE_PATH COUNT FIRST_ECHO OUT_FILE

#include <cstdio>
#include <cstdlib>
#include <string>

#include "ExchangeLog.h"
#include "Manager/CDevio.h"

int main(int argc, char** argv) {
    if (argc != 7) {
        std::fprintf(stderr, "usage: %s SYSFS DEV NODE COUNT FIRST_ECHO OUT\n", argv[0]);
        return 2;
    }
    auto bus = std::make_shared<simtest::SimBus>(argv[1], argv[2]);
    std::shared_ptr<devio::IHardwareDevice> hw;
    for (auto& found : bus->devices()) {
        if (found->path() == argv[3]) hw = found;
    }
    if (!hw) {
        std::fprintf(stderr, "no device at %s\n", argv[3]);
        return 2;
    }
    auto dev = std::make_shared<devio::Device>(hw);
    dev->initDevice(devio::cdevio.manager());
    devtest::Recorder rec;
    rec.attach(dev);
    const int count = std::atoi(argv[4]);
    const int first = std::atoi(argv[5]);
    int failed = 0;
    for (int i = 0; i < count; ++i) {
        devtest::Bytes answer;
        const auto echo = static_cast<std::uint8_t>(first + i);
        if (!dev->sendSynchronousCommand(devtest::ping_report(echo), answer, 0, {2}) ||
            answer.size() < 7 || answer[6] != echo) {
            ++failed;
        }
    }
    devtest::write_marks(devtest::exchange_marks(rec, 2), argv[6]);
    dev->uninitDevice();
    return failed == 0 ? 0 : 1;
}
