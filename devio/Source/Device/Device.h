#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Base/ITimer.h"
#include "Base/NamedMutex.h"
#include "Base/Producer.h"
#include "Base/Subscriber.h"
#include "Bus/IHardwareDevice.h"
#include "Bus/IReceiverDevice.h"
#include "Device/ExchangeTiming.h"
#include "Device/IDevice.h"
#include "Device/PendingExchange.h"
#include "Device/ResponseCache.h"
#include "Device/SoftwareIds.h"
#include "Features/IFeature.h"
#include "Features/IFeature0020ConfigChange.h"
#include "Features/IFeature1D4BWirelessStatus.h"
#include "Manager/IDeviceManager.h"

namespace devio {

// The ids of the device's timers, and the features its connection uses.
inline constexpr int kDeactivationTimerId = 0;
inline constexpr int kCacheWriteTimerId = 1;
inline constexpr int kFwCheckTimerId = 2;
inline constexpr unsigned kConfigChangeId = 0x0020;
inline constexpr unsigned kWirelessStatusId = 0x1D4B;

// One logical device over one hardware device: it classifies every report
// that the hardware reads, and turns "send a command, wait for its answer"
// into one blocking call that survives lost answers, other programs on the
// same link and other processes of this library.
//
// Device coordinates units that each keep their own lock: the command in
// flight (`PendingExchange`, `command_mutex`), the software id
// (`SoftwareIds`, `swid_mutex`) and the cache of responses with its file
// (`ResponseCache`, `cache_mutex`). Of its own it keeps `device_mutex`, the
// feature table, the time of the last report and the start of the hardware
// side.
//
// Threads:
// - Callers of the command engine: any host thread, the run-loop pump.
//   They take `device_mutex` (shared with every process by name), then
//   `command_mutex`, never the other way round. `command_mutex` is left only
//   while waiting for the answer; `device_mutex` is held through the wait.
// - The hardware device's read thread: `onRead` and `onWrite`. It takes
//   `last_report_mutex`, `features_mutex`, `command_mutex` and `swid_mutex`
//   each alone, one after the other, and holds none while it hands a report
//   to a feature.
// - `cache_mutex` is never held with another lock, so a cache hit costs one
//   uncontended lock.
// - `cache_write_timer` is delivered on the host's pumping thread, which
//   writes the cache file from a copy taken under `cache_mutex`.
// - `hw_start_mutex` guards the start of the hardware side and is held while
//   subscribing to the hardware device, which takes that producer's lock.
//   The read thread holds the producer's lock while it waits for
//   `command_mutex`, so the engine starts the read path before it takes
//   `command_mutex`, and under it only reads `read_path_ready`.
// The flags that the read thread sets without `command_mutex` are atomic.
class Device : public IDevice,
               public Producer<IDevice::Report>,
               public Producer<IDevice::WriteReport>,
               public Producer<IDevice::Connect>,
               public Producer<IDevice::ConfigChange>,
               public Subscriber<IHardwareDevice::Read>,
               public Subscriber<IHardwareDevice::Write>,
               public Subscriber<IHardwareDevice::Connect>,
               public Subscriber<ITimer::TimerEvent>,
               public Subscriber<IDeviceManager::ActiveChanged>,
               public Subscriber<IFeature1D4BWirelessStatus::Report>,
               public std::enable_shared_from_this<Device> {
public:
    using Match = std::vector<std::uint32_t>;

    // Only a test rig passes a timing other than the product's.
    explicit Device(std::shared_ptr<IHardwareDevice> hwdev, const ExchangeTiming& timing = {});
    ~Device() override;

    // IDevice
    bool initDevice(const std::shared_ptr<IDeviceManager>& manager) override;
    void uninitDevice() override;
    bool connected() override;
    bool removed() override { return is_removed.load(); }
    int bustype() override { return hwdev->bustype(); }
    int busport() override { return hwdev->busport(); }
    std::shared_ptr<IHardwareBus> bus() override { return hwdev->bus(); }
    std::string path() override { return hw_path; }
    int pid() override { return hwdev->pid(); }
    std::string name() override { return hwdev->name(); }
    unsigned swid() override;
    int secondary_id() override { return hwdev->secondary_id(); }
    void forget() override;
    std::weak_ptr<IDeviceManager> manager() override { return manager_; }
    std::shared_ptr<IFeature> feature_by_id(unsigned id) override;
    std::vector<std::shared_ptr<IFeature>> features() override;
    bool sendCommand(const std::vector<Byte>& report, bool wait_ready) override;
    bool sendSynchronousCommand(const std::vector<Byte>& command, std::vector<Byte>& response,
                                int cache_mode, const Match& match) override;
    void abandon() override;
    bool retry_load_feature_root() override;
    bool configured() override;
    bool set_configured(const std::shared_ptr<IFeature>& feature) override;
    bool set_pending(const std::shared_ptr<IFeature>& feature) override;
    bool has_pending() override;
    void confirm_configuration() override;
    bool shutdown() override;
    int hw_value() override { return hwdev->hw_value(); }
    unsigned rand_range(unsigned low, int high) override;

    // One exchange, without retries; `real_command` is false for pings.
    bool sendSynchronousCommandWithoutRetry(const std::vector<Byte>& command,
                                            std::vector<Byte>& response, const Match& match,
                                            bool real_command);

    // Puts a feature object at its index; from then on the device is
    // feature based. Used by feature loading.
    void store_feature(unsigned index, std::shared_ptr<IFeature> feature);
    // A device is feature based once it knows any feature.
    bool feature_based();

    // IHardwareDevice::Read, delivered directly on the read thread.
    void onRead(std::vector<Byte> report, bool rewrite_index, unsigned sys_error,
                unsigned size) override;
    // IHardwareDevice::Write, delivered directly; also the engine's own
    // report of each failed exchange.
    void onWrite(std::vector<Byte> report, ErrorCode err, unsigned value) override;

    // Whether the software id had to be changed because another program
    // answered with ours; picks the id that others used least lately.
    unsigned apply_swid_switch();

    // Feature loading: the root first, then single features on demand or
    // the whole table. A device that answered the root's version request
    // with the VXP 1.0 error stays "not VXP 2.0" until `retry`.
    bool load_feature_root(bool retry);
    std::shared_ptr<IFeature> load_feature(unsigned id, bool cached);
    bool load_features();
    // Reads the firmware text that the cache belongs to, once.
    bool load_fwinfo(bool had_cache);
    // The running firmware's identification, or "NotPresent" for a device
    // without firmware info; empty on failure.
    std::string read_fwinfo(bool cached);
    // Asks the device for its firmware again; a changed firmware makes the
    // device forget its features and answers, and fails with
    // `FwVersionChanged`.
    bool do_fwcheck();
    // The firmware text that the cache belongs to; empty until read.
    std::string firmware_text();

    // The feature cache file. A damaged file throws the XML parser's
    // exception out of `persistent_data_directory`.
    void persistent_data_directory(const std::string& dir);
    void perform_cache_read();
    void perform_cache_write();

    // ITimer::TimerEvent, delivered on the host's pumping thread.
    void onTimerEvent(int id) override;

    // The connection logic; all of it runs on the host's pumping thread
    // (delivery 0), one handler at a time, and sends commands from there.
    // IHardwareDevice::Connect: the data path came up or went down; also run
    // by the firmware check timer, `confirm_configuration` and activity.
    void onConnect(const std::shared_ptr<IHardwareDevice>& hw) override;
    void onDisconnect(const std::shared_ptr<IHardwareDevice>& hw) override;
    // IDeviceManager::ActiveChanged: an inactive session leaves devices alone.
    void onActiveChanged(bool active) override;
    // IFeature1D4BWirelessStatus::Report: settings lost without a link loss.
    void onWirelessStatusEvent(bool reconnect, bool config_needed, bool powerswitch) override;

protected:
    // Classifies one report (a copy that may be rewritten).
    ReportType onReadHandler(std::vector<Byte>& report, bool rewrite_index);

    using Producer<IDevice::Report>::on_subscribe;
    // A subscriber to connection events starts the hardware side.
    bool on_subscribe(IDevice::Connect* subscriber) override;
    using Producer<IDevice::ConfigChange>::on_subscribe;
    // A diagnostic subscriber to our write reports also wants those of the
    // hardware, every good and bad write.
    bool on_subscribe(IDevice::WriteReport* subscriber) override;

private:
    // The read path, in the order it tests a report.
    std::shared_ptr<IFeature> feature_at(unsigned index);
    bool deliver_notification(const std::vector<Byte>& report);
    // Under `hold`; true when the report completed the command.
    bool complete_pending(const PendingExchange::Hold& hold, const std::vector<Byte>& report);
    ReportType classify_other_software(const std::vector<Byte>& report);

    // The engine's pieces.
    bool ping(const std::vector<Byte>& command, int attempt, bool& start_over);
    bool cache_lookup(const std::vector<Byte>& command, std::vector<Byte>& response);
    void cache_store(const std::vector<Byte>& command, const std::vector<Byte>& response);
    bool exchange_failed(ErrorCode err, unsigned value);
    bool decode_error_report(const std::vector<Byte>& response);

    // Starts what the hardware side needs on first use: the Connect
    // subscription and, when the device is there, the Read subscription.
    bool lazy_hw_init();
    bool subscribe_read();
    bool ensure_read_path();

    // Connection and configuration pieces.
    void perform_deactivate();
    void subscribe_wireless_status();
    std::shared_ptr<IFeature0020ConfigChange> config_change_feature();
    // The hooks of a device behind a receiver, or null.
    IReceiverDevice* receiver_hooks();
    void produce_connect(bool configured_by_us, const char* name);
    void produce_disconnect(const char* name);
    void produce_config_change();
    // Empties `configured_features` and tells each feature: of a reset by
    // deactivation, or of a lost configuration.
    void drop_configuration(bool reset);
    void report(const char* where);

    // Connection (fields used by the engine and the read path).
    std::weak_ptr<IDeviceManager> manager_;
    const std::shared_ptr<IHardwareDevice> hwdev;
    // The identity of the hardware device never changes; kept so that
    // logging it costs no copy.
    const std::string hw_path;
    bool is_connected = false;
    std::atomic<bool> is_removed{false};
    std::atomic<bool> active{true};
    std::atomic<std::uint16_t> cookie{0};
    bool hw_started = false;
    bool read_subscribed = false;
    std::mutex hw_start_mutex;  // guards hw_started, read_subscribed, is_connected

    // Configuration by this host. `config_mutex` guards the lists and marks
    // below and is never held during a command or a production.
    std::vector<std::shared_ptr<IFeature>> configured_features;  // guarded by config_mutex
    std::vector<std::shared_ptr<IFeature>> pending_features;     // guarded by config_mutex
    bool device_unowned_but_dirty = false;                       // guarded by config_mutex
    bool receiver_notified = false;                              // guarded by config_mutex
    std::uint16_t foreign_cookie = 0;                            // guarded by config_mutex
    std::mutex config_mutex;
    std::atomic<bool> shutting_down{false};
    // 0 nothing said yet, 1 disconnected, 2 connected.
    std::atomic<int> reported_state{0};
    // Made in initDevice and constant after; ids 0 and 2 (1 is the cache's).
    std::shared_ptr<ITimer> deactivation_timer;
    std::shared_ptr<ITimer> fw_check_timer;
    std::atomic<bool> read_path_ready{false};

    // Report routing.
    std::map<std::uint32_t, std::shared_ptr<IFeature>> feature_table;  // guarded by features_mutex
    std::mutex features_mutex;
    SoftwareIds swids;
    std::int64_t last_report_time = 0;  // guarded by last_report_mutex
    std::mutex last_report_mutex;

    // Command engine.
    std::atomic<bool> abandoned{false};
    PendingExchange exchange;
    // The product's values, unless a test rig passed others.
    const ExchangeTiming exchange_timing;
    NamedMutex device_mutex{std::string(), false};
    std::atomic<bool> need_ping{false};
    std::atomic<bool> need_fw_check{false};
    ResponseCache cache;

    // Feature loading. The loading state is written by the threads that
    // load; atomic, so that two host threads loading at once only repeat
    // work.
    std::atomic<std::uint32_t> feature_root_state{0};  // 0 unknown, 1 not VXP 2.0, 2 loaded
    std::atomic<bool> all_features_loaded{false};
    // The check sends commands, whose retries may ask for the check again.
    std::atomic<bool> in_fw_check{false};
    // The firmware entity that was running when last asked.
    std::atomic<std::uint32_t> fw_entity{0};

    std::shared_ptr<IFeature> stored_feature(unsigned index);
    // Makes the object of a feature that the device's table lists, unless
    // the table already holds it, and fills in its record.
    std::shared_ptr<IFeature> put_feature(unsigned index, std::uint32_t id, bool obsolete,
                                          bool hidden, bool engineering, unsigned version);
    void make_cache_write_timer();
};

}  // namespace devio
