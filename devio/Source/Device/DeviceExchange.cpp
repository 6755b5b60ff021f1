// Device: one exchange with the hardware, a command out and its answer in,
// under the machine-wide device lock; and the plain write below it.

#include <chrono>

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Device/Device.h"
#include "Device/VxpReport.h"

namespace devio {

namespace {
// The highest error bytes that have a code of their own.
constexpr Byte kLastVxp10Error = 12;
constexpr Byte kLastVxp20Error = 9;
}  // namespace

bool Device::sendCommand(const std::vector<Byte>& report, bool wait_ready) {
    if (abandoned) {
        DEVIO_LOG("Device", 2, "sendCommand", "Device::sendCommand() - abandoned!");
        set_error(Abandoned);
        return false;
    }
    if (is_removed) {
        DEVIO_LOG("Device", 2, "sendCommand", "Device::sendCommand() - removed!");
        set_error(DeviceRemoved);
        return false;
    }
    if (!hwdev->open()) {
        DEVIO_LOG("Device", 1, "sendCommand", "Device::sendCommand() - hardware device not open!");
        return false;
    }
    // The read path must be in place before the report goes out, or the
    // answer could come back to nobody.
    if (wait_ready && !ensure_read_path()) return false;
    if (!hwdev->write(report, wait_ready)) {
        DEVIO_LOG("Device", 1, "sendCommand",
                  "Device::sendCommand() - hwdev->write() failed, errcode = %d!",
                  static_cast<int>(error_record().err));
        return false;
    }
    return true;
}

bool Device::ensure_read_path() {
    // Once in place, the read path is not checked under a lock: the engine
    // asks for it under `command_mutex`.
    if (read_path_ready) return true;
    if (!lazy_hw_init()) return false;
    std::lock_guard<std::mutex> lock(hw_start_mutex);
    if (!subscribe_read()) return false;
    read_path_ready = true;
    return true;
}

bool Device::exchange_failed(ErrorCode err, unsigned value) {
    onWrite({}, err, value);
    set_error(err);
    return false;
}

bool Device::sendSynchronousCommandWithoutRetry(const std::vector<Byte>& command,
                                                std::vector<Byte>& out, const Match& match,
                                                bool real_command) {
    // Lock order: device_mutex, then command_mutex.
    std::unique_lock<NamedMutex> device_lock(device_mutex);
    // Subscribing takes the read producer's lock, which the read thread
    // holds while it waits for `command_mutex`: do it before taking that.
    // A failure here is met again, and reported, in sendCommand.
    if (!abandoned && !is_removed) ensure_read_path();
    PendingExchange::Hold hold = exchange.hold();
    // Our id is in use by another program: the retry's ping picks a new one.
    if (swids.switch_requested() && feature_based()) return exchange_failed(SwidCollision, swid());
    if (real_command) hwdev->before_command();
    exchange.arm(hold, command, match);

    if (!sendCommand(command, true)) {
        DEVIO_LOG("Device", 1, "sendSynchronousCommandWithoutRetry",
                  "Device::sendSynchronousCommandWithoutRetry() - sendCommand failed!");
        const ErrorRecord saved = error_record();
        const bool still_there = hwdev->verify_connection_following_timeout();
        error_record() = saved;
        if (!still_there) {
            DEVIO_LOG(
                "Device", 1, "sendSynchronousCommandWithoutRetry",
                "Device::sendSynchronousCommandWithoutRetry() - not connected after timeout!");
            set_error(NotConnected);
            onWrite({}, NotConnected, 0);
        }
        exchange.abort(hold);
        DEVIO_LOG("Device", 1, "sendSynchronousCommandWithoutRetry",
                  "sendSynchronousCommandWithoutRetry returning error %d",
                  static_cast<int>(error_record().err));
        return false;
    }
    if (exchange.brb_workaround_active()) {
        DEVIO_LOG("Device", 3, "sendSynchronousCommandWithoutRetry",
                  "sendSynchronousCommandWithoutRetry brb workaround sending extra get protocol "
                  "request to flush response");
        std::vector<Byte> flush(vxp::kShortReportSize, 0);
        flush[3] = vxp::with_swid(0x10, swid());
        sendCommand(flush, false);
    }

    const auto started = std::chrono::steady_clock::now();
    const bool answered =
        exchange.wait(hold, std::chrono::milliseconds(exchange_timing.response_timeout_ms));
    const auto elapsed_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::steady_clock::now() - started)
                                .count();
    exchange.close(hold);

    if (exchange.take_late_answer(hold)) {
        DEVIO_LOG(
            "Device", 2, "sendSynchronousCommandWithoutRetry",
            "Device::_initiated_brb_workaround, returning no response to trigger a quick retry");
        return exchange_failed(NoResponse, 0);
    }
    if (abandoned) {
        DEVIO_LOG("Device", 2, "sendSynchronousCommandWithoutRetry",
                  "Device::sendSynchronousCommandWithoutRetry() - abandoned!");
        return exchange_failed(Abandoned, 0);
    }
    if (!answered) {
        DEVIO_LOG("Device", 1, "sendSynchronousCommandWithoutRetry",
                  "Device::sendSynchronousCommandWithoutRetry timeout, no response after %d ms, "
                  "timeout was %d ms",
                  static_cast<int>(elapsed_ms), exchange_timing.response_timeout_ms);
        if (!hwdev->verify_connection_following_timeout()) {
            DEVIO_LOG(
                "Device", 1, "sendSynchronousCommandWithoutRetry",
                "Device::sendSynchronousCommandWithoutRetry() - not connected after timeout!");
            return exchange_failed(NotConnected, 0);
        }
        hold.unlock();
        device_lock.unlock();
        DEVIO_LOG("Device", 2, "sendSynchronousCommandWithoutRetry",
                  "Device::sendSynchronousCommandWithoutRetry() - no response!");
        return exchange_failed(NoResponse, 0);
    }
    if (decode_error_report(exchange.answer(hold))) return false;
    out = exchange.answer(hold);
    DEVIO_LOG("Device", 3, "sendSynchronousCommandWithoutRetry",
              "pid %04x elapsed command time %d ms", static_cast<unsigned>(hwdev->pid()),
              static_cast<int>(elapsed_ms));
    return true;
}

bool Device::decode_error_report(const std::vector<Byte>& report) {
    if (report.size() < 4) return false;
    const Byte e = vxp::byte_at(report, 5);
    ErrorCode err;
    if (report[2] == vxp::kVxp10ErrorSubId) {
        err = e <= kLastVxp10Error ? static_cast<ErrorCode>(Vxp10Error0 + e) : Vxp10ErrorUnknown;
    } else if (report[2] == vxp::kVxp20ErrorIndex) {
        err = e <= kLastVxp20Error ? static_cast<ErrorCode>(Vxp20Error0 + e) : Vxp20ErrorUnknown;
    } else {
        return false;
    }
    onWrite({}, err, 0);
    set_error(err, nullptr, e);
    return true;
}

void Device::abandon() {
    DEVIO_LOG("Device", 2, "abandon", "Device::abandon enter");
    abandoned = true;
    DEVIO_LOG("Device", 3, "abandon", "Device::abandon setting readCompleted_");
    exchange.release_waiter();
    DEVIO_LOG("Device", 2, "abandon", "Device::abandon exit");
}

}  // namespace devio
