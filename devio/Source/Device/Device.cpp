// Device: construction, the start of its hardware side, and the calls that
// only forward to the hardware device or to the software ids.

#include "Device/Device.h"

#include <cstdlib>

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Base/InstanceCount.h"
#include "Base/Timer.h"
#include "Manager/ReceiverTable.h"

namespace devio {

namespace {
// Receivers carry the traffic of every device paired to them, so one name
// serialises all of it across processes.
bool shares_receiver_mutex(int pid) {
    const ReceiverProduct* receiver = find_receiver(pid);
    return receiver != nullptr && receiver->shared_name;
}
constexpr unsigned kBrbConfigItem = 7;
constexpr int kBusTypeReceiver = 1;
}  // namespace

Device::Device(std::shared_ptr<IHardwareDevice> hw, const ExchangeTiming& timing)
    : hwdev(std::move(hw)), hw_path(hwdev->path()), exchange_timing(timing) {
    DEVIO_LOG("Device", 3, "Device", "Device::Device(pid = 0x%x). Number of instances now: %d",
              static_cast<unsigned>(hwdev->pid()), InstanceCount<Device>::added());
}

Device::~Device() {
    // The timers' threads and their queued events must not outlive us.
    for (const auto& timer : {cache.write_timer(), deactivation_timer, fw_check_timer}) {
        if (!timer) continue;
        Subscriber<ITimer::TimerEvent>::unsubscribe(timer);
        timer->stop();
    }
    if (cache.dirty()) perform_cache_write();
    // Our members die before our Subscriber bases would leave their
    // producers: leave every one here, which also waits for a delivery that
    // another thread is running in us.
    Subscriber<IHardwareDevice::Read>::unsubscribe(hwdev);
    Subscriber<IHardwareDevice::Write>::unsubscribe(hwdev);
    Subscriber<IHardwareDevice::Connect>::unsubscribe(hwdev);
    if (auto manager = manager_.lock())
        Subscriber<IDeviceManager::ActiveChanged>::unsubscribe(manager);
    std::shared_ptr<IFeature> wireless;
    {
        std::lock_guard<std::mutex> lock(features_mutex);
        for (const auto& entry : feature_table) {
            if (entry.second && entry.second->featureId() == kWirelessStatusId)
                wireless = entry.second;
        }
    }
    if (auto status = std::dynamic_pointer_cast<IFeature1D4BWirelessStatus>(wireless))
        Subscriber<IFeature1D4BWirelessStatus::Report>::unsubscribe(status);
    DEVIO_LOG("Device", 3, "~Device", "Device::~Device. Number of instances now: %d",
              InstanceCount<Device>::removed());
}

bool Device::initDevice(const std::shared_ptr<IDeviceManager>& manager) {
    DEVIO_LOG("Device", 2, "initDevice", "Device::initDevice() enter");
    manager_ = manager;
    const int product = hwdev->pid();
    if (shares_receiver_mutex(product) || hwdev->bustype() == kBusTypeReceiver) {
        device_mutex.init("VantBraid");
    } else {
        char name[32];
        std::snprintf(name, sizeof name, "devio_0x%x", static_cast<unsigned>(product));
        device_mutex.init(name);
    }
    DEVIO_LOG("Device", 2, "initDevice", "Device::initDevice enter, pid=0x%x",
              static_cast<unsigned>(product));
    if (manager &&
        !Subscriber<IDeviceManager::ActiveChanged>::subscribe(manager, DeliveryRunLoop)) {
        manager->report_unreported_error(
            "Device::initDevice subscribe(IDeviceManager::ActiveChanged)");
    }
    if (manager) active = manager->is_active();
    deactivation_timer = std::make_shared<Timer>(kDeactivationTimerId);
    if (!Subscriber<ITimer::TimerEvent>::subscribe(deactivation_timer, DeliveryRunLoop) && manager)
        manager->report_unreported_error("Device::initDevice subscribe(deactivation_timer)");
    make_cache_write_timer();
    fw_check_timer = std::make_shared<Timer>(kFwCheckTimerId);
    if (!Subscriber<ITimer::TimerEvent>::subscribe(fw_check_timer, DeliveryRunLoop) && manager)
        manager->report_unreported_error("Device::initDevice subscribe(fw_check_timer)");
    if (hwdev->bustype() == kBusTypeReceiver) {
        bool enabled = false;
        if (manager && manager->config_get(kBrbConfigItem, &enabled) && enabled) {
            exchange.enable_brb();
            DEVIO_LOG("Device", 2, "initDevice",
                      "This braid device enabling the brb workaround, pid=0x%x",
                      static_cast<unsigned>(product));
        } else {
            DEVIO_LOG("Device", 2, "initDevice",
                      "Braid device but brb workaround disabled, pid=0x%x",
                      static_cast<unsigned>(product));
        }
    }
    DEVIO_LOG("Device", 2, "initDevice", "Device::initDevice() exit");
    return true;
}

void Device::uninitDevice() {
    DEVIO_LOG("Device", 2, "uninitDevice", "Device::uninitDevice() enter");
    is_removed = true;
    Subscriber<IHardwareDevice::Connect>::unsubscribe(hwdev);
    Subscriber<IHardwareDevice::Read>::unsubscribe(hwdev);
    {
        std::lock_guard<std::mutex> lock(hw_start_mutex);
        read_subscribed = false;
        hw_started = false;
        read_path_ready = false;
    }
    if (auto manager = manager_.lock())
        Subscriber<IDeviceManager::ActiveChanged>::unsubscribe(manager);
    hwdev->close();
    DEVIO_LOG("Device", 2, "uninitDevice", "Device::uninitDevice() exit");
}

bool Device::subscribe_read() {
    if (read_subscribed) return true;
    if (!Subscriber<IHardwareDevice::Read>::subscribe(hwdev, DeliveryDirect)) return false;
    read_subscribed = true;
    return true;
}

bool Device::lazy_hw_init() {
    std::lock_guard<std::mutex> lock(hw_start_mutex);
    if (hw_started) return true;
    auto manager = manager_.lock();
    if (!Subscriber<IHardwareDevice::Connect>::subscribe(hwdev, DeliveryRunLoop)) {
        if (manager)
            manager->report_unreported_error(
                "Device::initDevice subscribe(IHardwareDevice::Connect)");
        return false;
    }
    const bool there = hwdev->connected();
    if (there && !subscribe_read()) {
        if (manager)
            manager->report_unreported_error("Device::initDevice subscribe(IHardwareDevice::Read)");
        hwdev->open();
    }
    is_connected = there && active;
    hw_started = true;
    return true;
}

bool Device::connected() {
    lazy_hw_init();
    std::lock_guard<std::mutex> lock(hw_start_mutex);
    int nothing_said = 0;
    reported_state.compare_exchange_strong(nothing_said, is_connected ? 2 : 1);
    return is_connected;
}

bool Device::on_subscribe(IDevice::Connect* /*subscriber*/) {
    DEVIO_LOG("Device", 2, "on_subscribe", "subscribing to connect");
    return lazy_hw_init();
}

bool Device::on_subscribe(IDevice::WriteReport* /*subscriber*/) {
    if (Subscriber<IHardwareDevice::Write>::subscribe(hwdev, DeliveryDirect)) {
        DEVIO_LOG("Device", 3, "on_subscribe", "subscribed to write reports");
    } else {
        DEVIO_LOG("Device", 1, "on_subscribe", "could not subscribe to write reports, err=%d",
                  static_cast<int>(error_record().err));
    }
    return true;
}

unsigned Device::swid() {
    return swids.current(manager_);
}

unsigned Device::apply_swid_switch() {
    if (unsigned chosen = 0; swids.apply_switch(chosen)) {
        DEVIO_LOG("Device", 2, "apply_swid_switch", "switching to swid 0x%x", chosen);
    }
    return swid();
}

unsigned Device::rand_range(unsigned low, int high) {
    const auto span = static_cast<unsigned>(high) - low + 1;
    return low + static_cast<unsigned>(std::rand()) % span;
}

void Device::store_feature(unsigned index, std::shared_ptr<IFeature> feature) {
    std::lock_guard<std::mutex> lock(features_mutex);
    feature_table[index] = std::move(feature);
}

bool Device::feature_based() {
    std::lock_guard<std::mutex> lock(features_mutex);
    return !feature_table.empty();
}

std::shared_ptr<IFeature> Device::feature_at(unsigned index) {
    std::lock_guard<std::mutex> lock(features_mutex);
    return feature_table[index];
}

}  // namespace devio
