#include "Windows/BluetoothMicrosoftDevice.h"

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Base/InstanceCount.h"
#include "Windows/BluetoothMicrosoftBus.h"

#define BTD_LOG(level, function, ...) \
    DEVIO_LOG("BluetoothMicrosoftDevice", level, function, __VA_ARGS__)

namespace devio {

BluetoothMicrosoftDevice::BluetoothMicrosoftDevice(std::weak_ptr<BluetoothMicrosoftBus> bus,
                                                   std::string address_text, std::uint64_t address,
                                                   int bustype)
    : address_text_(std::move(address_text)),
      bus_(std::move(bus)),
      address_(address),
      bustype_(bustype) {
    BTD_LOG(3, "BluetoothMicrosoftDevice",
            "BluetoothMicrosoftDevice %s bustype %d Number of instances now: %d",
            address_text_.c_str(), bustype_, InstanceCount<BluetoothMicrosoftDevice>::added());
}

BluetoothMicrosoftDevice::~BluetoothMicrosoftDevice() {
    BTD_LOG(3, "~BluetoothMicrosoftDevice", "~BluetoothMicrosoftDevice Number of instances now: %d",
            InstanceCount<BluetoothMicrosoftDevice>::removed());
}

std::shared_ptr<IBluetoothBus> BluetoothMicrosoftDevice::bus() {
    return bus_.lock();
}

bool BluetoothMicrosoftDevice::connected() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        BTD_LOG(3, "connected",
                "BluetoothMicrosoftDevice::connected enter, addr=%s, _connected_known = %d, "
                "_connected = %d",
                address_text_.c_str(), connected_known_ ? 1 : 0, connected_ ? 1 : 0);
    }
    auto bus = bus_.lock();
    if (!bus || !bus->lazy_start()) {
        BTD_LOG(2, "connected",
                "BluetoothMicrosoftDevice::connected exit, false - lazy start failed");
        return false;
    }
    bool up = false;
    std::string radio;
    const bool answered = bus->get_connect_state_via_bgdi(address_, bustype_, &up, &radio, nullptr);
    std::lock_guard<std::mutex> lock(mutex_);
    if (answered) {
        connected_ = up;
        connected_known_ = true;
        connected_radio_ = radio;
        return connected_;
    }
    if (!connected_known_) {
        BTD_LOG(2, "connected", "BluetoothMicrosoftDevice::connected returning true (unknown)");
        connected_ = true;
        if (connected_radio_.empty()) connected_radio_ = PAIRING_UNKNOWN;
        return true;
    }
    BTD_LOG(2, "connected",
            "BluetoothMicrosoftDevice::connected could not get state, but connected state "
            "already known");
    return connected_;
}

std::string BluetoothMicrosoftDevice::connected_radio(const std::string& path, int bustype) {
    std::string result;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (connected_) result = connected_radio_;
    }
    if (result == PAIRING_UNKNOWN && bustype != kBusTypeNoPathLookup && !path.empty()) {
        auto bus = bus_.lock();
        const std::string found = bus ? bus->find_radio_via_pnp(path) : std::string();
        if (!found.empty()) {
            result = found;
            std::lock_guard<std::mutex> lock(mutex_);
            connected_radio_ = found;
        }
    }
    return result;
}

bool BluetoothMicrosoftDevice::verify_pairing(std::string& radio) {
    auto bus = bus_.lock();
    if (!bus || !bus->lazy_start()) return false;
    return bus->verify_pairing_via_bgdi(address_, radio, bustype_);
}

bool BluetoothMicrosoftDevice::radio_present(const std::string& radio) {
    BTD_LOG(3, "radio_present", "BluetoothMicrosoftDevice::visible enter, checking radio %s",
            radio.c_str());
    auto bus = bus_.lock();
    return bus && bus->has_radio(radio);
}

std::string BluetoothMicrosoftDevice::name() {
    auto bus = bus_.lock();
    if (!bus || !bus->lazy_start()) return {};
    std::string name;
    bus->get_connect_state_via_bgdi(address_, bustype_, nullptr, nullptr, &name);
    return name;
}

void BluetoothMicrosoftDevice::tell_connect(const std::string& radio) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        connected_radio_ = radio;
        connected_ = true;
        connected_known_ = true;
    }
    using Fast = IBluetoothDevice::BtFastConnect;
    using Slow = IBluetoothDevice::BtConnect;
    Producer<Fast>::produce([radio](Fast* s) { s->onBtFastConnect(radio); },
                            event_names::BluetoothMicrosoftDeviceBtFastConnect.onBtFastConnect);
    Producer<Slow>::produce([radio](Slow* s) { s->onBtConnect(radio); },
                            event_names::BluetoothMicrosoftDeviceBtConnect.onBtConnect);
}

void BluetoothMicrosoftDevice::tell_disconnect() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        connected_ = false;
        connected_known_ = true;
    }
    using Fast = IBluetoothDevice::BtFastConnect;
    using Slow = IBluetoothDevice::BtConnect;
    Producer<Fast>::produce([](Fast* s) { s->onBtFastDisconnect(); },
                            event_names::BluetoothMicrosoftDeviceBtFastConnect.onBtFastDisconnect);
    Producer<Slow>::produce([](Slow* s) { s->onBtDisconnect(); },
                            event_names::BluetoothMicrosoftDeviceBtConnect.onBtDisconnect);
}

void BluetoothMicrosoftDevice::tell_unpair(const std::string& radio) {
    using Unpair = IBluetoothDevice::BtUnpair;
    Producer<Unpair>::produce([radio](Unpair* s) { s->onBtUnpair(radio); },
                              event_names::BluetoothMicrosoftDeviceBtUnpair.onBtUnpair);
}

void BluetoothMicrosoftDevice::resolve_unknown_connected_radio(const std::string& radio) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (connected_radio_ != PAIRING_UNKNOWN) return;
        connected_radio_ = radio;
    }
    using Slow = IBluetoothDevice::BtConnect;
    Producer<Slow>::produce([radio](Slow* s) { s->onBtPairingResolve(radio); },
                            event_names::BluetoothMicrosoftDeviceBtConnect.onBtPairingResolve);
}

// An inactive Bluetooth bus does not refuse: the device is then told of
// nothing, and its users poll.
bool BluetoothMicrosoftDevice::on_subscribe(IBluetoothDevice::BtConnect* /*subscriber*/) {
    auto bus = bus_.lock();
    if (!bus) return true;
    if (bus->lazy_start()) return true;
    return error_record().err == BluetoothStartFailed;
}

}  // namespace devio
