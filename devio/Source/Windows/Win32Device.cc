#include "Windows/Win32Device.h"

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Base/InstanceCount.h"
#include "Windows/Win32Bus.h"

namespace devio {

namespace {
constexpr std::uint16_t kSplitProductId = 0x5A17;
constexpr std::uint16_t kVendorPage = 0xFF00;
constexpr std::uint16_t kMaskPage = 0xFF43;
}  // namespace

Win32Device::Win32Device(const std::shared_ptr<Win32Bus>& bus, std::shared_ptr<IWin32System> system,
                         std::string path, std::uint32_t devnode)
    : bus_(bus), system_(std::move(system)), path_(std::move(path)), devnode_(devnode) {
    DEVIO_LOG("Win32Device", 3, "Win32Device",
              "Win32Device constructor. Number of instances now: %d",
              InstanceCount<Win32Device>::added());
}

// A read thread that wakes now stops at its next test of `destructed_`.
Win32Device::~Win32Device() {
    destructed_ = true;
    close();
    DEVIO_LOG("Win32Device", 3, "~Win32Device",
              "Win32Device::~Win32Device. Number of instances now: %d",
              InstanceCount<Win32Device>::removed());
}

std::shared_ptr<IHardwareBus> Win32Device::bus() {
    return bus_.lock();
}

int Win32Device::collection_id() {
    return usage_ & 0xFF;
}

int Win32Device::collections_expected() {
    if (pid_ == kSplitProductId) return 2;
    if (usage_page_ == kMaskPage) return usage_ >> 8;
    if (usage_page_ == kVendorPage && (usage_ == 1 || usage_ == 2)) return 3;
    return usage_ & 0xFF;
}

std::string Win32Device::combine_key() {
    return collection_id() != collections_expected() ? parent_instance_ : path_;
}

bool Win32Device::on_subscribe(IHardwareDevice::Read* /*subscriber*/) {
    reading_ = true;
    if (open_) start_read_thread();
    return true;
}

bool Win32Device::on_read_thread() const {
    return std::this_thread::get_id() == read_thread_id_.load();
}

void Win32Device::close() {
    std::unique_lock<std::recursive_mutex> lifecycle(lifecycle_mutex_);
    DEVIO_LOG("Win32Device", 3, "close", "Win32Device::close enter, dev=%s", path_.c_str());
    if (read_thread_) {
        if (stop_event_ != kInvalidHandle) system_->set_event(stop_event_);
        if (on_read_thread()) {
            DEVIO_LOG(
                "Win32Device", 0, "close",
                "close is being called from the read thread, so detaching read thread instead "
                "of joining it");
            // The thread finds a new generation when it returns from its event and
            // touches none of the handles closed below.
            ++*generation_;
            thread_wanted_ = false;
            read_thread_->detach();
            read_thread_.reset();
        } else {
            // Only this call joins the thread; others that come meanwhile
            // find none. The thread's handlers may call open or close, so
            // the join waits without the lock.
            auto joining = std::move(read_thread_);
            lifecycle.unlock();
            joining->join();
            lifecycle.lock();
        }
    }
    if (notification_ != 0) {
        if (auto bus = bus_.lock())
            bus->unregisterDeviceNotificationAndCloseTrackedHandle(notification_, handle_);
        // Without a bus the handle is forgotten: the bus owned it.
        handle_ = kInvalidHandle;
        notification_ = 0;
    } else if (handle_ != kInvalidHandle) {
        system_->close_handle(handle_);
        DEVIO_LOG("Win32Device", 3, "close", "Win32Device::close closed handle %p",
                  reinterpret_cast<void*>(handle_));
        handle_ = kInvalidHandle;
    }
    if (stop_event_ != kInvalidHandle) {
        system_->close_handle(stop_event_);
        DEVIO_LOG("Win32Device", 3, "close", "closed handle %p (eventListRead)",
                  reinterpret_cast<void*>(stop_event_));
        stop_event_ = kInvalidHandle;
    }
    open_ = false;
    DEVIO_LOG("Win32Device", 3, "close", "Win32Device::close exit");
}

void Win32Device::start_read_thread() {
    if (thread_wanted_) {
        DEVIO_LOG("Win32Device", 3, "start_read_thread",
                  "Win32Device::on_subscribe device already has read thread");
        return;
    }
    DEVIO_LOG("Win32Device", 3, "start_read_thread",
              "Win32Device::on_subscribe starting read thread");
    system_->reset_event(stop_event_);
    thread_wanted_ = true;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        thread_started_ = false;
    }
    read_thread_ = std::make_unique<std::thread>([this] { read_thread(); });
    DEVIO_LOG("Win32Device", 3, "start_read_thread",
              "Win32Device::on_subscribe waiting for read thread to start");
    std::unique_lock<std::mutex> lock(mutex_);
    started_cv_.wait(lock, [this] { return thread_started_; });
}

bool Win32Device::verify_connection_following_timeout() {
    if (auto bus = bus_.lock()) {
        if (!bus->verify_device_exists(path_)) {
            DEVIO_LOG(
                "Win32Device", 1, "verify_connection_following_timeout",
                "Win32Device::verify_connection_following_timeout returning false (is a zombie)");
            return false;
        }
    } else {
        DEVIO_LOG("Win32Device", 3, "verify_connection_following_timeout",
                  "Win32Device::verify_connection_following_timeout could not lock bus");
    }
    return true;
}

}  // namespace devio
