#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Base/Producer.h"
#include "Bus/IHardwareDevice.h"
#include "Windows/IWin32System.h"

namespace devio {

class Win32Bus;

// One HID interface of the machine, addressed by its path. `open` is the
// filter that tells a VXP collection of the maker's devices from every other
// interface; once open, one read thread delivers reports and `write` sends
// them with a time-out.
//
// Threads: callers of open, close and write (any host thread, the run-loop
// pump, the bus thread) and the device's own read thread, which produces
// Read, may call close, and may write without blocking. `lifecycle_mutex_`
// serialises open and close (a command thread may open while the pump
// closes an unplugged device); close leaves it while joining the read
// thread, whose handlers may come back here. `mutex_` and `started_cv_`
// serve only the handshake at thread start; the atomic flags are read
// without a lock. Nothing serialises two concurrent writes.
class Win32Device : public IHardwareDevice,
                    public Producer<IHardwareDevice::Write>,
                    public Producer<IHardwareDevice::Read>,
                    public Producer<IHardwareDevice::Connect> {
public:
    Win32Device(const std::shared_ptr<Win32Bus>& bus, std::shared_ptr<IWin32System> system,
                std::string path, std::uint32_t devnode);
    ~Win32Device() override;

    bool connected() override { return true; }
    bool open() override;
    void close() override;
    bool write(std::vector<Byte> report, bool blocking) override;
    std::shared_ptr<IHardwareBus> bus() override;
    std::string path() override { return path_; }
    int pid() override { return pid_; }
    std::string name() override { return product_name_; }
    bool verify_connection_following_timeout() override;
    std::string combine_key() override;
    int collection_id() override;
    int collections_expected() override;
    int max_report_size() override { return output_report_length_; }

    virtual void read_thread();

protected:
    using Producer<IHardwareDevice::Write>::on_subscribe;
    using Producer<IHardwareDevice::Connect>::on_subscribe;
    bool on_subscribe(IHardwareDevice::Read* subscriber) override;

private:
    bool fail_open(ErrorCode err, std::uint32_t sys, const char* text);
    bool passes_filters();
    bool read_caps(const hid::CollectionCaps& caps);
    void read_product_string();
    void find_parent_instance();
    void start_read_thread();
    bool on_read_thread() const;
    bool write_fail(const char* text);
    void read_loop(unsigned generation);
    void produce_read(std::vector<Byte> report, unsigned sys_error, unsigned size);

    bool reading_ = false;
    bool open_ = false;
    std::string parent_instance_;
    std::string product_name_;
    std::weak_ptr<Win32Bus> bus_;
    std::shared_ptr<IWin32System> system_;
    std::string path_;
    std::uint32_t devnode_;  // kept, never read
    const std::uint32_t write_timeout_ = 10000;
    std::uint16_t vid_ = 0, pid_ = 0, version_ = 0;
    std::uint16_t output_report_length_ = 0;
    std::uint16_t usage_ = 0, usage_page_ = 0;
    std::map<std::uint8_t, std::uint16_t> report_sizes_;
    bool caps_known_ = false;
    PlatformHandle handle_ = kInvalidHandle;
    std::uintptr_t notification_ = 0;
    PlatformHandle stop_event_ = kInvalidHandle;  // ends the pending read
    std::unique_ptr<std::thread> read_thread_;
    std::atomic<std::thread::id> read_thread_id_{};  // set by the thread itself
    bool thread_started_ = false;                    // guarded by mutex_
    std::mutex mutex_;
    std::condition_variable started_cv_;
    // Recursive: open closes before it opens again.
    std::recursive_mutex lifecycle_mutex_;
    std::atomic<bool> thread_wanted_{false};
    std::atomic<bool> thread_ended_{false};
    std::atomic<bool> destructed_{false};
    std::atomic<bool> removed_{false};
    // Each start of the read thread gets a new number; a thread that finds
    // another number has been let go by close and touches nothing more.
    // Shared with the read thread, which may still look at it after close()
    // from its own event handler let the object go.
    std::shared_ptr<std::atomic<unsigned>> generation_ = std::make_shared<std::atomic<unsigned>>(0);
};

}  // namespace devio
