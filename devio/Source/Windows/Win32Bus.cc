#include "Windows/Win32Bus.h"

#include "Base/ClassLog.h"
#include "Base/DevioException.h"
#include "Base/ErrorRecord.h"
#include "Base/InstanceCount.h"
#include "Manager/IDeviceManager.h"
#include "Windows/BluetoothMicrosoftBus.h"
#include "Windows/GattBus.h"
#include "Windows/Win32Device.h"

namespace devio {

namespace {
// Configuration items of the manager that the platform bus reads.
constexpr unsigned kConfigBluetoothActive = 0;
constexpr unsigned kConfigBleActive = 1;
constexpr unsigned kConfigBleMonitor = 2;
}  // namespace

std::shared_ptr<Win32Bus> Win32Bus::create(std::weak_ptr<IDeviceManager> manager) {
    auto bus = std::shared_ptr<Win32Bus>(new Win32Bus(std::move(manager)));
    bus->init();
    return bus;
}

// The Bluetooth monitor is made even when Bluetooth is switched off: its
// presence is what puts the pairing filter into the stack.
void Win32Bus::init() {
    bool bluetooth_active = false;
    bool ble_active = false;
    bool ble_monitor = false;
    if (auto manager = manager_.lock()) {
        manager->config_get(kConfigBluetoothActive, &bluetooth_active);
        manager->config_get(kConfigBleActive, &ble_active);
        manager->config_get(kConfigBleMonitor, &ble_monitor);
    } else {
        set_error(ShuttingDown);
    }
    bluetooth_monitors_.push_back(
        std::make_shared<BluetoothMicrosoftBus>(weak_from_this(), bluetooth_active || ble_active));
    if (ble_active || ble_monitor)
        secondary_busses_.push_back(std::make_shared<GattBus>(weak_from_this()));
}

bool Win32Bus::configItem(unsigned item) {
    bool value = false;
    if (auto manager = manager_.lock()) manager->config_get(item, &value);
    return value;
}

Win32Bus::Win32Bus(std::weak_ptr<IDeviceManager> manager) : manager_(std::move(manager)) {
    DEVIO_LOG("Win32Bus", 3, "Win32Bus", "Win32Bus::Win32Bus Number of instances now: %d",
              InstanceCount<Win32Bus>::added());
}

// The window thread releases every notification and tracked handle as it
// ends; joining it is what makes the bus let go of the machine.
Win32Bus::~Win32Bus() {
    DEVIO_LOG("Win32Bus", 3, "~Win32Bus", "Win32Bus::~Win32Bus enter");
    if (IDeviceChangeSystem* window = window_.load())
        window->post_message(window_message::kClose, 0, 0);
    DEVIO_LOG("Win32Bus", 3, "~Win32Bus", "Win32Bus::~Win32Bus joining thread");
    if (window_thread_.joinable()) {
        // A handler on the window thread may drop the last reference: what
        // the thread would release at its end is released here, and the
        // thread leaves its loop, touching nothing of the bus, once this
        // handler returns.
        if (window_thread_.get_id() == std::this_thread::get_id()) {
            releaseNotifications();
            *alive_ = false;
            window_thread_.detach();
        } else {
            window_thread_.join();
        }
    }
    DEVIO_LOG("Win32Bus", 3, "~Win32Bus", "Win32Bus::~Win32Bus exit");
    DEVIO_LOG("Win32Bus", 3, "~Win32Bus", "Win32Bus::~Win32Bus Number of instances now: %d",
              InstanceCount<Win32Bus>::removed());
}

std::shared_ptr<IWin32System> Win32Bus::makeWin32System() {
    return makePlatformSystem();
}

std::shared_ptr<IDeviceChangeSystem> Win32Bus::makeDeviceChangeSystem(
    const std::shared_ptr<IWin32System>& system) {
    return makePlatformDeviceChange(system);
}

std::vector<std::shared_ptr<IBluetoothBus>> Win32Bus::bluetooth_busses() {
    return bluetooth_monitors_;
}

std::vector<std::shared_ptr<IHardwareSecondaryBus>> Win32Bus::secondary_busses() {
    return secondary_busses_;
}

void Win32Bus::lazyStart(std::shared_ptr<IWin32System>* system_out) {
    std::lock_guard<std::mutex> lock(start_mutex_);
    if (started_) {
        DEVIO_LOG("Win32Bus", 3, "lazyStart", "Win32Bus::lazyStart already started");
    } else {
        DEVIO_LOG("Win32Bus", 3, "lazyStart", "Win32Bus::lazyStart performing startup");
        system_ = makeWin32System();
        hid_class_ = system_->hid_interface_class();
        change_ = makeDeviceChangeSystem(system_);
        {
            std::lock_guard<std::mutex> started(started_mutex_);
            window_thread_started_ = false;
            window_thread_failed_ = false;
        }
        window_thread_ = std::thread([this] { window_thread_static(); });
        DEVIO_LOG("Win32Bus", 3, "lazyStart", "Win32Bus::lazyStart waiting");
        std::unique_lock<std::mutex> wait(started_mutex_);
        started_cv_.wait(wait, [this] { return window_thread_started_ || window_thread_failed_; });
        // A thread that could not make its window has ended; the bus cannot
        // start, and a later call tries again.
        if (window_thread_failed_) {
            wait.unlock();
            window_thread_.join();
            throw DevioException(WindowCreateFailed, "could not create window");
        }
        started_ = true;
    }
    if (system_out) *system_out = system_;
}

bool Win32Bus::on_subscribe(IHardwareBus::PlugUnplug* /*subscriber*/) {
    try {
        lazyStart();
    } catch (const DevioException& e) {
        e.record();
        DEVIO_LOG("Win32Bus", 1, "on_subscribe", "Win32Bus::on_subscribe exception");
        return false;
    }
    return true;
}

std::vector<std::shared_ptr<IHardwareDevice>> Win32Bus::devices() {
    DEVIO_LOG("Win32Bus", 2, "devices", "Win32Bus::devices enter");
    std::vector<std::shared_ptr<IHardwareDevice>> list;
    try {
        lazyStart();
        EnumerateInterfaces(hid_class_, list);
    } catch (const DevioException& e) {
        e.record();
        DEVIO_LOG("Win32Bus", 1, "devices", "Win32Bus::devices exception");
        return {};
    }
    if (list.empty()) set_error(Success);
    DEVIO_LOG("Win32Bus", 2, "devices", "Win32Bus::devices exit, returning %d devices",
              static_cast<int>(list.size()));
    return list;
}

// Opens every interface of the class for a moment: open is the filter.
void Win32Bus::EnumerateInterfaces(const std::string& interface_class,
                                   std::vector<std::shared_ptr<IHardwareDevice>>& out) {
    DEVIO_LOG("Win32Bus", 3, "EnumerateInterfaces", "Win32Bus::EnumerateInterfaces enter");
    for (const HidInterface& found : system_->enumerate_interfaces(interface_class)) {
        auto device =
            std::make_shared<Win32Device>(shared_from_this(), system_, found.path, found.devnode);
        if (!device->open()) {
            DEVIO_LOG("Win32Bus", 3, "EnumerateInterfaces",
                      "Win32Bus::EnumerateInterfaces ignoring device it could not open");
            continue;
        }
        device->close();
        out.push_back(device);
        DEVIO_LOG("Win32Bus", 3, "EnumerateInterfaces",
                  "Win32Bus::EnumerateInterfaces adding device to list");
    }
    DEVIO_LOG("Win32Bus", 3, "EnumerateInterfaces", "Win32Bus::EnumerateInterfaces exit");
}

void Win32Bus::read_failed_with_disconnect_error(const std::string& path) {
    std::shared_ptr<Win32Bus> self;
    try {
        self = shared_from_this();
    } catch (...) {
        return;
    }
    auto device = std::make_shared<Win32Device>(self, system_, path, 0);
    DEVIO_LOG("Win32Bus", 2, "read_failed_with_disconnect_error",
              "Win32Bus::read_failed_with_disconnect_error producing onUnPlug event");
    std::shared_ptr<IHardwareDevice> gone = device;
    produce([gone](IHardwareBus::PlugUnplug* s) { s->onUnplug(gone); },
            event_names::Win32BusPlugUnplug.onUnplug);
}

bool Win32Bus::verify_device_exists(const std::string& path) {
    for (const auto& device : devices()) {
        if (device->path() == path) {
            DEVIO_LOG("Win32Bus", 2, "verify_device_exists",
                      "Win32Bus::verify_device_exists - device is present: %s", path.c_str());
            return true;
        }
    }
    DEVIO_LOG("Win32Bus", 1, "verify_device_exists",
              "Win32Bus::verify_device_exists - device was lost: %s", path.c_str());
    read_failed_with_disconnect_error(path);
    return false;
}

}  // namespace devio
