// Device: when it tells its subscribers "connected", and whether the
// configuration this host wrote into the device is still there. The proof is
// a 16-bit cookie in feature 0x0020: the library writes a random one when it
// configures the device and reads it back at each connection; another value
// means that another host or program reconfigured the device.

#include <chrono>

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Device/Device.h"
#include "Features/Feature.h"

#define CONNECT_LOG(level, function, ...) DEVIO_LOG("Device", level, function, __VA_ARGS__)

namespace devio {

namespace {
constexpr int kReportedDisconnected = 1;
constexpr int kReportedConnected = 2;
// A device that talked within this time cannot just have reconnected.
constexpr std::int64_t kQuietBeforeCheckMs = 1000;
constexpr int kDeactivationDelayMs = 5000;
constexpr int kBusTypeReceiver = 1;

std::int64_t now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool not_connected() {
    return error_record().err == NotConnected;
}
}  // namespace

void Device::onTimerEvent(int id) {
    if (id == kDeactivationTimerId) perform_deactivate();
    if (id == kCacheWriteTimerId) perform_cache_write();
    if (id == kFwCheckTimerId) onConnect(nullptr);
}

void Device::report(const char* where) {
    if (auto manager = manager_.lock()) manager->report_unreported_error(where);
}

std::shared_ptr<IFeature0020ConfigChange> Device::config_change_feature() {
    return std::dynamic_pointer_cast<IFeature0020ConfigChange>(feature_by_id(kConfigChangeId));
}

IReceiverDevice* Device::receiver_hooks() {
    if (hwdev->bustype() != kBusTypeReceiver) return nullptr;
    return dynamic_cast<IReceiverDevice*>(hwdev.get());
}

void Device::subscribe_wireless_status() {
    if (hwdev->bustype() != kBusTypeReceiver) return;
    auto status =
        std::dynamic_pointer_cast<IFeature1D4BWirelessStatus>(feature_by_id(kWirelessStatusId));
    if (!status) return;
    const bool ok =
        Subscriber<IFeature1D4BWirelessStatus::Report>::subscribe(status, DeliveryRunLoop);
    DEVIO_LOG("Device", 2, "load_feature_root",
              "Device::load_feature_root subscribing to 1d4b, ret=%d", ok);
}

void Device::produce_connect(bool configured_by_us, const char* name) {
    auto self = shared_from_this();
    Producer<IDevice::Connect>::produce(
        [self, configured_by_us](IDevice::Connect* s) { s->onConnect(self, configured_by_us); },
        name);
}

void Device::produce_disconnect(const char* name) {
    auto self = shared_from_this();
    Producer<IDevice::Connect>::produce([self](IDevice::Connect* s) { s->onDisconnect(self); },
                                        name);
}

void Device::produce_config_change() {
    Producer<IDevice::ConfigChange>::produce([](IDevice::ConfigChange* s) { s->onConfigChange(); },
                                             event_names::DeviceConfigChange.onConfigChange);
}

void Device::drop_configuration(bool reset) {
    std::vector<std::shared_ptr<IFeature>> dropped;
    {
        std::lock_guard<std::mutex> lock(config_mutex);
        dropped.swap(configured_features);
    }
    if (!dropped.empty()) produce_config_change();
    for (const auto& feature : dropped) {
        if (reset) {
            CONNECT_LOG(2, "perform_deactivate",
                        "onConnect: telling feature 0x%04x about the reset", feature->featureId());
        } else {
            CONNECT_LOG(2, "onConnect",
                        "onConnect: telling feature 0x%04x about the lost configuration",
                        feature->featureId());
        }
        if (auto f = feature->sharedFeature()) f->pendingChanges = false;
    }
}

bool Device::configured() {
    std::lock_guard<std::mutex> lock(config_mutex);
    return !configured_features.empty();
}

bool Device::has_pending() {
    std::lock_guard<std::mutex> lock(config_mutex);
    return !pending_features.empty();
}

void Device::onConnect(const std::shared_ptr<IHardwareDevice>& /*hw*/) {
    auto self = shared_from_this();  // handlers may let the last owner go
    const unsigned pid = static_cast<unsigned>(hwdev->pid());
    CONNECT_LOG(2, "onConnect", "-connect- pid=%04x begin...", pid);
    {
        std::lock_guard<std::mutex> lock(hw_start_mutex);
        if (!subscribe_read()) report("Device::onConnect subscribe(IHardwareDevice::Read)");
    }
    bool already;
    {
        std::lock_guard<std::mutex> lock(hw_start_mutex);
        already = is_connected;
    }
    if (already) {
        CONNECT_LOG(2, "onConnect", "connect of already connected device");
        long since_ms;
        {
            std::lock_guard<std::mutex> lock(last_report_mutex);
            since_ms = static_cast<long>((now_ns() - last_report_time) / 1000000);
        }
        CONNECT_LOG(2, "onConnect", "its been %ld milliseconds since last report", since_ms);
        if (since_ms < kQuietBeforeCheckMs) {
            CONNECT_LOG(2, "onConnect",
                        "time since last report less than a second, so delaying onConnect "
                        "processing");
            fw_check_timer->reset(static_cast<int>(kQuietBeforeCheckMs));
            return;
        }
    }
    if (!active) {
        if (configured()) {
            CONNECT_LOG(2, "onConnect",
                        "inactive session, device configured, connect triggering deactivation");
            deactivation_timer->start(kDeactivationDelayMs);
        } else {
            CONNECT_LOG(2, "onConnect", "inactive session, device not configured, connect ignored");
        }
        return;
    }
    if (exchange.brb_workaround_active()) {
        CONNECT_LOG(2, "onConnect", "Deactivating brb workaround");
        exchange.deactivate_brb();
    }
    bool was_configured = configured();
    bool lost = false, mismatch = false;

    const bool fw_ok = do_fwcheck();
    if (!fw_ok && not_connected()) {
        CONNECT_LOG(2, "onConnect", "Not reporting connect due to NotConnected");
        return;
    }
    if (!fw_ok) {
        CONNECT_LOG(1, "onConnect", "onConnect: fw check failed, err=%d",
                    static_cast<int>(error_record().err));
        set_error(Success);
        was_configured = false;
    }
    if (fw_ok && was_configured && cookie == 0) {
        lost = true;
    } else if (fw_ok && was_configured) {
        auto change = config_change_feature();
        if (!change) {
            if (not_connected()) {
                CONNECT_LOG(2, "onConnect", "Not reporting connect due to NotConnected");
                return;
            }
            CONNECT_LOG(2, "onConnect",
                        "onConnect: losing configuration because no 0x0020 feature present");
            lost = true;
        } else {
            CONNECT_LOG(2, "onConnect", "OnConnect is reading cookie");
            std::uint16_t read = 0;
            if (change->GetCookie(&read)) {
                CONNECT_LOG(2, "onConnect", "OnConnect: read cookie %04x", read);
                if (read == cookie) {
                    CONNECT_LOG(2, "onConnect", "onConnect: cookie matched");
                } else {
                    CONNECT_LOG(2, "onConnect",
                                "onConnect: losing configuration because cookie did not match");
                    lost = mismatch = true;
                    if (read != 0) {
                        std::lock_guard<std::mutex> lock(config_mutex);
                        foreign_cookie = read;
                    }
                }
            } else {
                CONNECT_LOG(1, "onConnect", "onConnect: could not read cookie, err=%d",
                            static_cast<int>(error_record().err));
                if (not_connected()) {
                    CONNECT_LOG(2, "onConnect", "Not reporting connect due to NotConnected");
                    return;
                }
                CONNECT_LOG(2, "onConnect",
                            "onConnect: losing configuration because could not get cookie");
                lost = true;
            }
        }
    } else {
        CONNECT_LOG(2, "onConnect", "onConnect: device not configured");
    }

    std::vector<std::shared_ptr<IFeature>> pending;
    if (!lost) {
        std::lock_guard<std::mutex> lock(config_mutex);
        pending = pending_features;
    }
    if (!pending.empty()) {
        CONNECT_LOG(2, "onConnect", "onConnect: Letting features write pending changes");
        for (const auto& feature : pending) {
            {
                std::lock_guard<std::mutex> lock(config_mutex);
                std::erase(pending_features, feature);
            }
            auto f = feature->sharedFeature();
            if (f && !f->applyPendingChanges()) {
                CONNECT_LOG(1, "onConnect",
                            "onConnect: losing configuration because some feature could not "
                            "write pending changes, err=%d",
                            static_cast<int>(error_record().err));
                lost = true;
                if (not_connected()) {
                    CONNECT_LOG(2, "onConnect", "Not reporting connect due to NotConnected");
                    return;
                }
            }
        }
        if (auto change = config_change_feature()) {
            CONNECT_LOG(2, "onConnect",
                        "onConnect is writing cookie to 0x0020 feature (config complete)");
            if (!change->SetCookie(cookie)) {
                CONNECT_LOG(1, "onConnect",
                            "onConnect: losing configuration because could not write "
                            "configuration complete to receiver, err=%d",
                            static_cast<int>(error_record().err));
                lost = true;
                if (not_connected()) {
                    CONNECT_LOG(2, "onConnect", "Not reporting connect due to NotConnected");
                    return;
                }
            }
        }
    }
    if (lost) {
        drop_configuration(false);
        was_configured = false;
        if (!mismatch) {
            // We cannot tell what the device holds: shutdown must still clear it.
            std::lock_guard<std::mutex> lock(config_mutex);
            device_unowned_but_dirty = true;
        }
    }
    {
        std::lock_guard<std::mutex> lock(hw_start_mutex);
        is_connected = true;
    }
    CONNECT_LOG(2, "onConnect",
                "-connect- sending connect pid %04x with device_configured_by_us = %d", pid,
                was_configured);
    reported_state = kReportedConnected;
    produce_connect(was_configured, event_names::DeviceConnect.onConnect);
    CONNECT_LOG(2, "onConnect", "...Device::onConnect() pid=0x%x end.", pid);
}

void Device::onDisconnect(const std::shared_ptr<IHardwareDevice>& /*hw*/) {
    auto self = shared_from_this();
    const unsigned pid = static_cast<unsigned>(hwdev->pid());
    CONNECT_LOG(2, "onDisconnect", "Device::onDisconnect enter, pid = 0x%x", pid);
    deactivation_timer->stop();
    fw_check_timer->stop();
    {
        std::lock_guard<std::mutex> lock(hw_start_mutex);
        is_connected = false;
    }
    reported_state = kReportedDisconnected;
    produce_disconnect(event_names::DeviceConnect.onDisconnect);
    CONNECT_LOG(2, "onDisconnect", "Device::onDisconnect exit, pid = 0x%x", pid);
}

void Device::onActiveChanged(bool now_active) {
    if (active.exchange(now_active) == now_active) return;
    CONNECT_LOG(2, "onActiveChanged", "Changed active state to %d", now_active);
    bool started;
    {
        std::lock_guard<std::mutex> lock(hw_start_mutex);
        started = hw_started;
    }
    if (!started || !hwdev->connected()) return;
    const unsigned pid = static_cast<unsigned>(hwdev->pid());
    if (now_active) {
        CONNECT_LOG(2, "onActiveChanged", "Going active while device %04x is connected", pid);
        deactivation_timer->stop();
        onConnect(nullptr);
    } else {
        CONNECT_LOG(2, "onActiveChanged", "Going inactive while device %04x is connected", pid);
        onDisconnect(nullptr);
        if (configured()) deactivation_timer->start(kDeactivationDelayMs);
    }
}

void Device::perform_deactivate() {
    const unsigned pid = static_cast<unsigned>(hwdev->pid());
    CONNECT_LOG(2, "perform_deactivate", "Starting deactivation of device %04x", pid);
    bool started;
    {
        std::lock_guard<std::mutex> lock(hw_start_mutex);
        started = hw_started;
    }
    std::shared_ptr<IFeature0020ConfigChange> change;
    std::uint16_t read = 0;
    if (active) {
        CONNECT_LOG(2, "perform_deactivate", "Deactivation for device %04x skipped due to active_",
                    pid);
    } else if (!started || !hwdev->connected()) {
        CONNECT_LOG(2, "perform_deactivate",
                    "Deactivation for device %04x skipped due to !hwdev->connected()", pid);
    } else if (!(change = config_change_feature())) {
        CONNECT_LOG(2, "perform_deactivate",
                    "Deactivation: skipping deactivation because no 0x0020 feature");
    } else if (CONNECT_LOG(2, "perform_deactivate",
                           "Deactivation is checking 0x0020 feature to see if we still hold the "
                           "configuration"),
               !change->GetCookie(&read)) {
        CONNECT_LOG(1, "perform_deactivate",
                    "Deactivation: skipping deactivation because could not read cookie, err=%d",
                    static_cast<int>(error_record().err));
    } else if (read != cookie) {
        CONNECT_LOG(2, "perform_deactivate",
                    "Deactivation: skipping deactivation because cookie did not match");
        if (read != 0) {
            std::lock_guard<std::mutex> lock(config_mutex);
            foreign_cookie = read;
        }
    } else {
        CONNECT_LOG(2, "perform_deactivate",
                    "Deactivation: we still hold configuration, resetting device by clearing "
                    "0x0020 cookie");
        if (!change->SetCookie(0)) {
            CONNECT_LOG(1, "perform_deactivate",
                        "could not clear cookie in 0x0020 feature, errcode=");
        }
        drop_configuration(true);
    }
    CONNECT_LOG(2, "perform_deactivate", "Deactivation exit");
}

void Device::onWirelessStatusEvent(bool reconnect, bool config_needed, bool powerswitch) {
    auto self = shared_from_this();
    CONNECT_LOG(2, "onWirelessStatusEvent", "enter, reconnect=%d, config_needed=%d, powerswitch=%d",
                reconnect, config_needed, powerswitch);
    if (!config_needed) {
        CONNECT_LOG(2, "onWirelessStatusEvent", "exit, no config needed");
        return;
    }
    do_fwcheck();
    if (!configured()) {
        CONNECT_LOG(2, "onWirelessStatusEvent", "exit, no features configured");
        return;
    }
    bool lost = false;
    if (auto change = config_change_feature()) {
        CONNECT_LOG(2, "onWirelessStatusEvent", "reading 0020 cookie");
        std::uint16_t read = 0;
        if (change->GetCookie(&read)) {
            if (read == cookie) {
                CONNECT_LOG(2, "onWirelessStatusEvent",
                            "Not reporting lost settings due to cookie matching");
                return;
            }
            CONNECT_LOG(2, "onWirelessStatusEvent", "cookie did not match");
            lost = true;
        } else {
            CONNECT_LOG(1, "onWirelessStatusEvent", "failed to get 0020 cookie");
        }
    } else {
        CONNECT_LOG(1, "onWirelessStatusEvent", "feature 0020 missing");
    }
    if (!lost && not_connected()) {
        CONNECT_LOG(2, "onWirelessStatusEvent", "Not reporting lost settings due to NotConnected");
        return;
    }
    if (reported_state == kReportedConnected) {
        CONNECT_LOG(2, "onWirelessStatusEvent",
                    "reporting settings lost via an onDisconnect/onConnect sequence");
        // Both under the connect event's name: hosts have always seen the
        // disconnect of this sequence so.
        produce_disconnect(event_names::DeviceConnect.onConnect);
        produce_connect(false, event_names::DeviceConnect.onConnect);
    } else {
        CONNECT_LOG(2, "onWirelessStatusEvent",
                    "Not reporting lost settings due to latest reported connected state being "
                    "other than connected");
    }
    CONNECT_LOG(2, "onWirelessStatusEvent", "exit");
}

bool Device::set_configured(const std::shared_ptr<IFeature>& feature) {
    if (shutting_down) return true;
    if (!configured()) {
        if (IReceiverDevice* receiver = receiver_hooks()) {
            {
                std::lock_guard<std::mutex> lock(config_mutex);
                receiver_notified = true;
            }
            if (!receiver->configuring_receiver()) return false;
        }
        if (auto change = config_change_feature()) {
            std::uint16_t existing = 0;
            if (!change->GetCookie(&existing)) return false;
            CONNECT_LOG(2, "set_configured",
                        "set_configured read existing cookie from device: 0x%04x", existing);
            std::uint16_t avoid;
            {
                std::lock_guard<std::mutex> lock(config_mutex);
                if (existing != 0) foreign_cookie = existing;
                avoid = foreign_cookie;
            }
            if (existing != 0) {
                CONNECT_LOG(2, "set_configured",
                            "set_configured is writing 0 cookie to 0x0020 feature to reset device");
                if (!change->SetCookie(0)) return false;
            }
            // Counting past the foreign cookie makes ours differ from it.
            unsigned chosen = rand_range(1, 65534);
            if (chosen >= avoid) ++chosen;
            cookie = static_cast<std::uint16_t>(chosen);
            CONNECT_LOG(2, "set_configured", "set_configured picked a new cookie 0x%04x", chosen);
            if (has_pending()) {
                CONNECT_LOG(2, "set_configured",
                            "set_configured delaying writing of new cookie because we are "
                            "processing a pending change");
            } else {
                CONNECT_LOG(2, "set_configured",
                            "set_configured is writing new cookie to 0x0020 feature");
                if (!change->SetCookie(cookie)) return false;
            }
        }
        CONNECT_LOG(2, "set_configured", "-api- set_configured produuing onConfigChange");
        produce_config_change();
    }
    std::lock_guard<std::mutex> lock(config_mutex);
    configured_features.push_back(feature);
    device_unowned_but_dirty = false;
    return true;
}

bool Device::set_pending(const std::shared_ptr<IFeature>& feature) {
    if (shutting_down) return true;
    IReceiverDevice* receiver = receiver_hooks();
    if (receiver && !has_pending()) {
        bool first;
        {
            std::lock_guard<std::mutex> lock(config_mutex);
            first = !receiver_notified;
            receiver_notified = true;
        }
        if (first && !receiver->configuring_receiver()) return false;
        if (!receiver->configuring_device()) return false;
    }
    std::lock_guard<std::mutex> lock(config_mutex);
    pending_features.push_back(feature);
    return true;
}

void Device::confirm_configuration() {
    const unsigned pid = static_cast<unsigned>(hwdev->pid());
    CONNECT_LOG(2, "confirm_configuration", "Device::confirm_configuration(pid = 0x%04x) begin...",
                pid);
    bool started;
    {
        std::lock_guard<std::mutex> lock(hw_start_mutex);
        started = hw_started;
    }
    if (started && hwdev->connected()) onConnect(nullptr);
    CONNECT_LOG(2, "confirm_configuration", "Device::confirm_configuration(pid = 0x%04x) ...end",
                pid);
}

bool Device::shutdown() {
    shutting_down = true;
    CONNECT_LOG(2, "shutdown", "Device::shutdown");
    bool result = true;
    bool notified;
    {
        std::lock_guard<std::mutex> lock(config_mutex);
        notified = receiver_notified;
    }
    if (IReceiverDevice* receiver = receiver_hooks(); receiver && notified)
        result = receiver->done_configuring_receiver();
    bool is_configured, dirty;
    {
        std::lock_guard<std::mutex> lock(config_mutex);
        is_configured = !configured_features.empty();
        dirty = device_unowned_but_dirty;
    }
    if (is_configured || dirty) {
        CONNECT_LOG(2, "shutdown", "configured = %d, device_unowned_but_dirty = %d", is_configured,
                    dirty);
        if (auto change = config_change_feature()) {
            CONNECT_LOG(2, "shutdown",
                        "set_configured is resetting device by clearing cookie in 0x0020 feature");
            if (!change->SetCookie(0))
                CONNECT_LOG(1, "shutdown", "could not clear cookie in 0x0020 feature, errcode=");
        }
        std::lock_guard<std::mutex> lock(config_mutex);
        configured_features.clear();
        device_unowned_but_dirty = false;
    }
    return result;
}

}  // namespace devio
