#include "Bus/Pairing/PairingDevice.h"

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Base/InstanceCount.h"
#include "Bus/Pairing/PairingBus.h"

#define PAIRING_LOG(level, function, ...) \
    DEVIO_LOG_TAG("Devio", "PairingDevice", level, function, __VA_ARGS__)

namespace devio {

PairingDevice::PairingDevice(const std::shared_ptr<PairingBus>& bus,
                             std::shared_ptr<IHardwareDevice> hwdev, std::string path, unsigned pid,
                             std::string name, std::shared_ptr<IBluetoothDevice> btdev,
                             std::string radio, int lower_bustype)
    : bus_(bus),
      _hwdev(std::move(hwdev)),
      path_(std::move(path)),
      name_(std::move(name)),
      pid_(pid),
      _btdev(std::move(btdev)),
      radio_(std::move(radio)) {
    if (_btdev) {
        bustype_ = _btdev->bustype();
        if (bustype_ != kBusTypeBle) {
            PAIRING_LOG(2, "PairingDevice", "PairingDevice constructor, is bluetooth classic");
        } else {
            gatt_data_path_ = lower_bustype == kBusTypeGatt;
            PAIRING_LOG(2, "PairingDevice",
                        "PairingDevice constructor, is bluetooth low energy (%s)",
                        gatt_data_path_ ? "blevx" : "blevxp");
        }
    } else {
        bustype_ = lower_bustype;
        PAIRING_LOG(2, "PairingDevice", "PairingDevice constructor, non bluetooth bus type %d",
                    bustype_);
    }
    PAIRING_LOG(3, "PairingDevice", "PairingDevice::PairingDevice Number of instances now: %d",
                InstanceCount<PairingDevice>::added());
    if (!_btdev) {
        _bt_connected = true;
        _realtime_bt_connected = true;
        PAIRING_LOG(2, "PairingDevice",
                    "device is not bluetooth so treating device the same as if bt_connected were "
                    "true");
        return;
    }
    // The fast events come straight from the radio's thread, so that a
    // write is refused at once; the others wait their turn in the run loop.
    auto report = [&bus](const char* where) {
        if (bus) bus->report_unreported_error(where);
    };
    if (!Subscriber<IBluetoothDevice::BtFastConnect>::subscribe(_btdev, DeliveryDirect))
        report("Could not subscribe to BtFastConnect");
    if (!Subscriber<IBluetoothDevice::BtConnect>::subscribe(_btdev, DeliveryRunLoop))
        report("Could not subscribe to BtConnect");
    if (!Subscriber<IBluetoothDevice::BtUnpair>::subscribe(_btdev, DeliveryRunLoop))
        report("Could not subscribe to BtUnpair");
    if (radio_ == PAIRING_UNKNOWN && _btdev->connected()) {
        radio_ = _btdev->connected_radio(path_, bustype_);
    }
    PAIRING_LOG(2, "PairingDevice", "device is bluetooth, _bt_connected = %d, radio=%s",
                _bt_connected, radio_.c_str());
}

PairingDevice::~PairingDevice() {
    PAIRING_LOG(2, "~PairingDevice", "PairingDevice::~PairingDevice (pid = 0x%x)", pid_);
    if (_monitor) {
        PAIRING_LOG(1, "~PairingDevice",
                    "PairingDevice::~PairingDevice there is still an attached monitor, pid = 0x%x",
                    pid_);
    }
    PAIRING_LOG(3, "~PairingDevice", "PairingDevice::~PairingDevice Number of instances now: %d",
                InstanceCount<PairingDevice>::removed());
}

std::shared_ptr<IHardwareBus> PairingDevice::bus() {
    return bus_.lock();
}

std::string PairingDevice::name() {
    bool ask = false;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        ask = !name_known && _btdev;
    }
    if (ask) {
        // The radio knows the name the user gave the device.
        const std::string told = _btdev->name();
        if (!told.empty()) {
            std::lock_guard<std::mutex> lock(state_mutex);
            name_ = told;
            name_known = true;
        }
    }
    std::lock_guard<std::mutex> lock(state_mutex);
    return name_;
}

void PairingDevice::set_name_if_empty(const std::string& name) {
    std::lock_guard<std::mutex> lock(state_mutex);
    if (name_.empty()) name_ = name;
}

int PairingDevice::busport() {
    if (bustype_ != kBusTypeBle) return 0;
    return gatt_data_path_ ? 2 : 1;
}

std::string PairingDevice::radio() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return radio_;
}

bool PairingDevice::has_monitor() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return _monitor != nullptr;
}

// A poll repairs any connection event that was missed.
bool PairingDevice::connected() {
    if (!_btdev) {
        PAIRING_LOG(2, "connected",
                    "PairingDevice::connected returning true (corded device always connected)");
        return true;
    }
    PAIRING_LOG(2, "connected", "PairingDevice::connected realtime state was %d",
                _realtime_bt_connected.load());
    const bool now = _btdev->connected();
    _realtime_bt_connected = now;
    PAIRING_LOG(2, "connected", "PairingDevice::connected realtime state now %d", now);
    bool told = false;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        told = _bt_connected;
    }
    if (now != told) {
        PAIRING_LOG(2, "connected", "PairingDevice::connected handling state change");
        if (now) {
            onBtConnect(_btdev->connected_radio(path_, bustype_));
        } else {
            onBtDisconnect();
        }
        PAIRING_LOG(2, "connected", "PairingDevice::connected setting _bt_connected to %d", now);
        {
            std::lock_guard<std::mutex> lock(state_mutex);
            _bt_connected = now;
        }
        PAIRING_LOG(2, "connected", "PairingDevice::connected done handling state change");
    }
    std::lock_guard<std::mutex> lock(state_mutex);
    const bool result = _hwdev && _bt_connected;
    PAIRING_LOG(2, "connected", "PairingDevice::connected returning (_hwdev=%d && radio=%d) = %d",
                _hwdev != nullptr, _bt_connected, result);
    return result;
}

bool PairingDevice::open() {
    PAIRING_LOG(2, "open", "PairingDevice::open enter");
    std::shared_ptr<IHardwareDevice> hw, monitor;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        if (_bt_connected) hw = _hwdev;
        monitor = _monitor;
    }
    if (!hw) {
        // A device that is away opens in the sense that nothing is to do.
        PAIRING_LOG(2, "open", "PairingDevice::open exit (true)");
        return true;
    }
    PAIRING_LOG(2, "open", "PairingDevice::open _bt_connected is true, so opening _hwdev");
    const bool ok = hw->open();
    if (ok) {
        if (monitor) monitor->open();
        std::lock_guard<std::mutex> lock(state_mutex);
        opened = true;
    }
    PAIRING_LOG(2, "open", "PairingDevice::open exit (%d)", ok);
    return ok;
}

void PairingDevice::close() {
    std::shared_ptr<IHardwareDevice> hw, monitor;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        opened = false;
        hw = _hwdev;
        monitor = _monitor;
    }
    if (hw) hw->close();
    if (monitor) monitor->close();
}

bool PairingDevice::write(std::vector<Byte> report, bool blocking) {
    if (_btdev && !_realtime_bt_connected) {
        set_error(NotConnected);
        PAIRING_LOG(2, "write",
                    "PairingDevice::write not _realtime_bt_connected so returning NotConnected");
        return false;
    }
    std::shared_ptr<IHardwareDevice> hw;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        if (_bt_connected) hw = _hwdev;
    }
    if (!hw) {
        set_error(NotConnected);
        PAIRING_LOG(2, "write", "PairingDevice::write exit (false, NotConnected)");
        return false;
    }
    // Never to the monitor: it only listens.
    if (hw->write(std::move(report), blocking)) {
        PAIRING_LOG(2, "write", "PairingDevice::write exit (true, wrote to device)");
        return true;
    }
    PAIRING_LOG(2, "write", "PairingDevice::write exit (false, failed to write to device), err=%d",
                static_cast<int>(error_record().err));
    return false;
}

// Reads of the data path and of the monitor mix in one stream.
void PairingDevice::onRead(std::vector<Byte> report, bool rewrite_index, unsigned sys_error,
                           unsigned size) {
    Producer<IHardwareDevice::Read>::produce(
        [report, rewrite_index, sys_error, size](IHardwareDevice::Read* s) {
            s->onRead(report, rewrite_index, sys_error, size);
        },
        event_names::PairingDeviceRead.onRead);
}

void PairingDevice::onWrite(std::vector<Byte> report, ErrorCode err, unsigned value) {
    Producer<IHardwareDevice::Write>::produce(
        [report, err, value](IHardwareDevice::Write* s) { s->onWrite(report, err, value); },
        event_names::PairingDeviceWrite.onWrite);
}

bool PairingDevice::on_subscribe(IHardwareDevice::Connect* /*subscriber*/) {
    bool present = false;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        present = _hwdev != nullptr;
    }
    // Brings the state up to date before the subscriber relies on it.
    if (present) connected();
    return true;
}

bool PairingDevice::on_subscribe(IHardwareDevice::Read* /*subscriber*/) {
    std::lock_guard<std::mutex> follow(follow_mutex);
    std::shared_ptr<IHardwareDevice> hw, monitor;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        if (reading) {
            PAIRING_LOG(2, "on_subscribe", "PairingDevice::on_subscribe already reading");
            return true;
        }
        hw = _hwdev;
        monitor = _monitor;
    }
    if (!hw) {
        PAIRING_LOG(1, "on_subscribe", "PairingDevice::on_subscribe (read) _hwdev is nullptr");
    } else if (!Subscriber<IHardwareDevice::Read>::subscribe(hw, DeliveryDirect)) {
        PAIRING_LOG(2, "on_subscribe",
                    "PairingDevice::on_subscribe exit (false, could not subscribe to read _hwdev)");
        return false;
    }
    if (!monitor) {
        PAIRING_LOG(1, "on_subscribe", "PairingDevice::on_subscribe (read) monitor_ is nullptr");
    } else if (Subscriber<IHardwareDevice::Read>::subscribe(monitor, DeliveryDirect)) {
        PAIRING_LOG(2, "on_subscribe",
                    "PairingDevice::on_subscribe successfully subscribed to read _monitor");
    } else {
        // The data path reads without it.
        PAIRING_LOG(2, "on_subscribe",
                    "PairingDevice::on_subscribe exit (false, could not subscribe to read "
                    "_monitor)");
    }
    std::lock_guard<std::mutex> lock(state_mutex);
    reading = true;
    return true;
}

bool PairingDevice::on_subscribe(IHardwareDevice::Write* /*subscriber*/) {
    std::lock_guard<std::mutex> follow(follow_mutex);
    std::shared_ptr<IHardwareDevice> hw;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        logging_writes = true;
        hw = _hwdev;
    }
    if (!hw) {
        PAIRING_LOG(1, "on_subscribe", "PairingDevice::on_subscribe (write) _hwdev is nullptr");
        return true;
    }
    if (!Subscriber<IHardwareDevice::Write>::subscribe(hw, DeliveryDirect)) {
        PAIRING_LOG(2, "on_subscribe",
                    "PairingDevice::on_subscribe exit (false, could not subscribe to writes from "
                    "_hwdev)");
        return false;
    }
    return true;
}

void PairingDevice::data_connect(const std::shared_ptr<IHardwareDevice>& hwdev) {
    bool up = false;
    {
        std::lock_guard<std::mutex> follow(follow_mutex);
        bool follow_reads = false, follow_writes = false;
        {
            std::lock_guard<std::mutex> lock(state_mutex);
            PAIRING_LOG(2, "data_connect", "PairingDevice::data_connect enter, hid=%d->1 and bt=%d",
                        _hwdev != nullptr, _bt_connected);
            if (_hwdev) return;
            _hwdev = hwdev;
            follow_reads = reading;
            follow_writes = logging_writes;
            up = _bt_connected;
        }
        if (follow_reads) {
            PAIRING_LOG(2, "data_connect",
                        "PairingDevice::data_connect reading, so subscribing to connected device");
            Subscriber<IHardwareDevice::Read>::subscribe(hwdev, DeliveryDirect);
        }
        if (follow_writes) {
            PAIRING_LOG(2, "data_connect",
                        "PairingDevice::data_connect logging writes, so subscribing to connected "
                        "device");
            Subscriber<IHardwareDevice::Write>::subscribe(hwdev, DeliveryDirect);
        }
    }
    if (up) produce_connect(true);
}

void PairingDevice::data_disconnect() {
    bool was_up = false;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        PAIRING_LOG(2, "data_disconnect",
                    "PairingDevice::data_disconnect enter, hid=%d->0 and bt=%d", _hwdev != nullptr,
                    _bt_connected);
        if (!_hwdev) return;
        _hwdev.reset();
        was_up = _bt_connected;
    }
    if (was_up) produce_connect(false);
}

void PairingDevice::open_for_reading(const std::shared_ptr<IHardwareDevice>& device,
                                     bool reading_now, const char* failure) {
    if (reading_now && !device->open()) PAIRING_LOG(1, "onBtConnect", "%s", failure);
}

void PairingDevice::onBtConnect(const std::string& radio) {
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        PAIRING_LOG(2, "onBtConnect",
                    "PairingDevice::onBtConnect enter, device was _bt_connected=%d, radio=%s, new "
                    "radio=%s",
                    _bt_connected, radio_.c_str(), radio.c_str());
    }
    update_pairing(radio);
    std::shared_ptr<IHardwareDevice> hw, monitor;
    bool came_up = false, reading_now = false;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        if (!_bt_connected) {
            PAIRING_LOG(2, "onBtConnect",
                        "PairingDevice::onBtConnect setting _bt_connected to true");
            _bt_connected = true;
            came_up = true;
            hw = _hwdev;
        }
        monitor = _monitor;
        reading_now = reading;
    }
    if (came_up && hw) {
        PAIRING_LOG(2, "onBtConnect", "PairingDevice::onBtConnect device now paired to radio %s",
                    radio.c_str());
        if (reading_now) {
            PAIRING_LOG(2, "onBtConnect",
                        "PairingDevice::onBtConnect reading so ensure hwdev is open (should "
                        "already be open, but we're making sure)");
        } else {
            PAIRING_LOG(2, "onBtConnect",
                        "PairingDevice::onBtConnect not reading so no need to open device");
        }
        open_for_reading(
            hw, reading_now,
            "PairingDevice::onBtConnect reading but could not open device on bt connect");
        produce_connect(true);
    }
    if (monitor) {
        open_for_reading(
            monitor, reading_now,
            "PairingDevice::onBtConnect reading but could not open monitor on bt connect");
    }
    PAIRING_LOG(2, "onBtConnect", "PairingDevice::onBtConnect exit");
}

void PairingDevice::onBtDisconnect() {
    std::shared_ptr<IHardwareDevice> hw, monitor;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        PAIRING_LOG(2, "onBtDisconnect",
                    "PairingDevice::onBtDisconnect enter, device was _bt_connected=%d paired to %s",
                    _bt_connected, radio_.c_str());
        if (_bt_connected) {
            // The text keeps the name it has always had in the logs.
            PAIRING_LOG(2, "onBtDisconnect",
                        "PairingDevice::onBtConnect setting _bt_connected to false");
            _bt_connected = false;
        }
        hw = _hwdev;
        monitor = _monitor;
    }
    // One event per lower device that went quiet: a device with a monitor
    // tells it twice.
    if (hw) {
        hw->close();
        produce_connect(false);
    }
    if (monitor) {
        monitor->close();
        produce_connect(false);
    }
}

void PairingDevice::onBtFastConnect(const std::string& /*radio*/) {
    PAIRING_LOG(2, "onBtFastConnect", "PairingDevice::onBtFastConnect _realtime_bt_connected=%d->1",
                _realtime_bt_connected.load());
    _realtime_bt_connected = true;
}

void PairingDevice::onBtFastDisconnect() {
    PAIRING_LOG(2, "onBtFastDisconnect",
                "PairingDevice::onBtFastDisconnect _realtime_bt_connected=%d->0",
                _realtime_bt_connected.load());
    _realtime_bt_connected = false;
}

void PairingDevice::onBtPairingResolve(const std::string& radio) {
    bool unknown = false;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        unknown = radio_ == PAIRING_UNKNOWN;
    }
    if (unknown) update_pairing(radio);
}

void PairingDevice::update_pairing(const std::string& radio) {
    if (radio.empty()) {
        PAIRING_LOG(1, "update_pairing",
                    "PairingDevice::update_pairing asked to update to null radio");
        return;
    }
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        PAIRING_LOG(2, "update_pairing", "PairingDevice::update_pairing was %s now %s",
                    radio_.c_str(), radio.c_str());
        if (radio_ == radio) return;
        radio_ = radio;
    }
    // A device that has just become visible is plugged.
    if (auto bus = bus_.lock()) bus->announce(shared_from_this());
}

void PairingDevice::onBtUnpair(const std::string& radio) {
    PAIRING_LOG(2, "onBtUnpair", "PairingDevice::onBtUnpair enter");
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        if (radio == radio_) {
            radio_.clear();
        } else {
            PAIRING_LOG(1, "onBtUnpair", "PairingDevice::onBtUnpair wrong radio unpaired: %s",
                        radio.c_str());
            PAIRING_LOG(1, "onBtUnpair", "PairingDevice::onBtUnpair device was paired to: %s",
                        radio_.c_str());
        }
    }
    if (auto bus = bus_.lock()) {
        PAIRING_LOG(2, "onBtUnpair", "PairingDevice::onBtUnpair telling bus about unpairing");
        bus->process_unpair(shared_from_this());
    }
}

bool PairingDevice::visible() {
    const std::string paired_to = radio();
    PAIRING_LOG(2, "visible", "PairingDevice::visible enter, checking radio %s", paired_to.c_str());
    if (!_btdev) {
        PAIRING_LOG(0, "visible", "PairingDevice::visible not a bt device");
        return true;
    }
    if (paired_to.empty()) {
        PAIRING_LOG(2, "visible", "PairingDevice::visible returning false, not paired");
        return false;
    }
    const bool present = _btdev->radio_present(paired_to);
    PAIRING_LOG(2, "visible", "PairingDevice::visible returning %d", present);
    return present;
}

// A lost pairing is learnt from the radio's unpair event, not by asking:
// a device that has a radio record counts as paired.
bool PairingDevice::pairing_lost() {
    if (_btdev) return false;
    return radio().empty();
}

void PairingDevice::add_monitor(const std::shared_ptr<IHardwareDevice>& hwdev) {
    if (!hwdev) {
        PAIRING_LOG(2, "add_monitor", "PairingDevice::add_monitor enter, null _hwdev");
        return;
    }
    std::lock_guard<std::mutex> follow(follow_mutex);
    bool open_it = false, follow_reads = false;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        _monitor = hwdev;
        open_it = opened;
        follow_reads = reading;
    }
    PAIRING_LOG(2, "add_monitor", "PairingDevice::add_monitor enter, path=%s",
                hwdev->path().c_str());
    if (open_it) hwdev->open();
    if (follow_reads) {
        if (Subscriber<IHardwareDevice::Read>::subscribe(hwdev, DeliveryDirect)) {
            PAIRING_LOG(2, "add_monitor",
                        "PairingDevice::add_monitor successfully subscribed to read monitor");
        } else {
            PAIRING_LOG(2, "add_monitor",
                        "PairingDevice::add_monitor could not subscribe to read monitor)");
        }
    }
    PAIRING_LOG(2, "add_monitor", "PairingDevice::add_monitor exit");
}

std::shared_ptr<IHardwareDevice> PairingDevice::remove_monitor(
    const std::shared_ptr<IHardwareDevice>& hwdev) {
    const std::string wanted = hwdev ? hwdev->path() : std::string();
    std::lock_guard<std::mutex> follow(follow_mutex);
    std::shared_ptr<IHardwareDevice> monitor;
    bool close_it = false;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        monitor = _monitor;
    }
    if (!monitor) return nullptr;
    if (hwdev && monitor->path() != wanted) return nullptr;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        _monitor.reset();
        close_it = opened;
    }
    if (close_it) monitor->close();
    // Its reads are no longer this device's.
    Subscriber<IHardwareDevice::Read>::unsubscribe(monitor);
    return monitor;
}

bool PairingDevice::verify_connection_following_timeout() {
    PAIRING_LOG(2, "verify_connection_following_timeout",
                "PairingDevice::verify_connection_following_timeout() enter");
    std::shared_ptr<IHardwareDevice> hw;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        hw = _hwdev;
    }
    if (!hw) {
        PAIRING_LOG(1, "verify_connection_following_timeout",
                    "PairingDevice::verify_connection_following_timeout() exit, false, _hwdev is "
                    "null");
        return false;
    }
    if (!_realtime_bt_connected) {
        PAIRING_LOG(1, "verify_connection_following_timeout",
                    "PairingDevice::verify_connection_following_timeout() exit, false, "
                    "_realtime_bt_connected is false");
        return false;
    }
    if (!hw->verify_connection_following_timeout()) {
        // A corded device that timed out is still there as far as we know.
        if (_btdev) data_disconnect();
        PAIRING_LOG(1, "verify_connection_following_timeout",
                    "PairingDevice::_hwdev->verify_connection_following_timeout(hwdev) exit, "
                    "false, result from lower layer");
        return false;
    }
    if (_btdev && !_btdev->verify_connection_following_timeout()) {
        PAIRING_LOG(1, "verify_connection_following_timeout",
                    "PairingDevice::_btdev->verify_connection_following_timeout() result from "
                    "btdev is false");
        data_disconnect();
        return false;
    }
    PAIRING_LOG(2, "verify_connection_following_timeout",
                "PairingDevice::verify_connection_following_timeout() exit, returning %d", 1);
    return true;
}

void PairingDevice::produce_connect(bool up) {
    const std::shared_ptr<IHardwareDevice> self = shared_from_this();
    if (up) {
        Producer<IHardwareDevice::Connect>::produce(
            [self](IHardwareDevice::Connect* s) { s->onConnect(self); },
            event_names::PairingBusConnect.onConnect);
    } else {
        Producer<IHardwareDevice::Connect>::produce(
            [self](IHardwareDevice::Connect* s) { s->onDisconnect(self); },
            event_names::PairingBusConnect.onDisconnect);
    }
}

}  // namespace devio
