// Win32Device's data path: the read thread and the write path.

#include <cstdio>

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Windows/Win32Bus.h"
#include "Windows/Win32Device.h"

namespace devio {

namespace {
// The platform's code for a device that is no longer connected, which the
// layers above know from every platform.
constexpr unsigned kDeviceNotConnected = 1167;
constexpr std::size_t kReportLogChars = 256;

// "-hid- 0x<pid> [R]: 10 ff 00 ..." cut at 256 characters, built on the stack.
void logReport(std::uint16_t pid, const char* direction, const std::vector<Byte>& report) {
    char line[kReportLogChars];
    int used = std::snprintf(line, sizeof line, "-hid- 0x%x [%s]: ", pid, direction);
    for (std::size_t i = 0;
         i < report.size() && used >= 0 && static_cast<std::size_t>(used) + 3 < sizeof line; ++i) {
        used += std::snprintf(line + used, sizeof line - static_cast<std::size_t>(used), "%02x ",
                              report[i]);
    }
    DEVIO_LOG("Win32Device", 2, "log_report", "%s", line);
}
}  // namespace

void Win32Device::produce_read(std::vector<Byte> report, unsigned sys_error, unsigned size) {
    Producer<IHardwareDevice::Read>::produce(
        [report, sys_error, size](IHardwareDevice::Read* s) {
            s->onRead(report, false, sys_error, size);
        },
        event_names::Win32DeviceRead.onRead);
}

void Win32Device::read_thread() {
    DEVIO_LOG("Win32Device", 3, "read_thread", "Win32Device::read_thread start");
    const unsigned generation = generation_->load();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        read_thread_id_ = std::this_thread::get_id();
        thread_started_ = true;
    }
    started_cv_.notify_all();
    if (destructed_) {
        thread_ended_ = true;
        DEVIO_LOG("Win32Device", 3, "read_thread",
                  "Win32Device::read_thread end (already destructed)");
        return;
    }
    read_loop(generation);
}

void Win32Device::read_loop(unsigned generation) {
    // The buffer has the output length; open made it equal to the input one.
    std::vector<Byte> buffer(output_report_length_);
    const PlatformHandle handle = handle_;
    const PlatformHandle stop = stop_event_;
    const std::shared_ptr<std::atomic<unsigned>> current = generation_;
    bool disconnected = false;
    while (thread_wanted_) {
        std::uint32_t sys = 0;
        const ReadOutcome r = system_->read_report(handle, stop, buffer, sys);
        if (r == ReadOutcome::Stopped) {
            DEVIO_LOG("Win32Device", 3, "read_thread", "Win32Device::read_thread got stop event");
            thread_wanted_ = false;
            break;
        }
        if (destructed_) {
            DEVIO_LOG(
                "Win32Device", 3, "read_thread",
                "Win32Device::read_thread stopping because destructed (before producing event)");
            thread_wanted_ = false;
            break;
        }
        if (r == ReadOutcome::Disconnected) {
            disconnected = true;
            break;
        }
        logReport(pid_, "R", buffer);
        DEVIO_LOG("Win32Device", 3, "read_thread", "Win32Device::read_thread producing event");
        const bool ok = r == ReadOutcome::Report;
        produce_read(ok ? buffer : std::vector<Byte>{}, ok ? 0 : sys,
                     static_cast<unsigned>(buffer.size()));
        // close() from the handler let this thread go: nothing of the object is
        // ours any more.
        if (current->load() != generation) return;
        if (destructed_) {
            DEVIO_LOG(
                "Win32Device", 3, "read_thread",
                "Win32Device::read_thread stopping because destructed (after producing event)");
            thread_wanted_ = false;
            break;
        }
    }
    if (disconnected) {
        DEVIO_LOG("Win32Device", 1, "read_thread",
                  "Win32Device::read_thread ERROR_DEVICE_NOT_CONNECTED");
        if (auto bus = bus_.lock()) {
            removed_ = true;
            bus->read_failed_with_disconnect_error(path_);
            // The unplug it produced may have closed this device and let the
            // last owner go, here on its own thread.
            if (current->load() != generation) return;
        }
        produce_read({}, kDeviceNotConnected, 0);
        if (current->load() != generation) return;
    }
    thread_ended_ = true;
    DEVIO_LOG("Win32Device", 3, "read_thread", "Win32Device::read_thread end");
}

bool Win32Device::write_fail(const char* text) {
    DEVIO_LOG("Win32Device", 2, "write", "%s", text);
    const ErrorRecord& e = error_record();
    const ErrorCode err = e.err;
    const unsigned sys = e.sys;
    Producer<IHardwareDevice::Write>::produce(
        [err, sys](IHardwareDevice::Write* s) { s->onWrite({}, err, sys); },
        event_names::Win32DeviceWrite.onWrite);
    return false;
}

bool Win32Device::write(std::vector<Byte> report, bool blocking) {
    DEVIO_LOG("Win32Device", 3, "write", "Win32Device::write enter");
    if (!open()) return write_fail("Win32Device::write exit (false, open failed)");
    if (handle_ == kInvalidHandle) {
        set_error(InvalidDeviceHandle);
        return write_fail("Win32Device::write exit (false, InvalidDeviceHandle)");
    }
    if (report.empty()) {
        set_error(WriteTooShort);
        return write_fail("Win32Device::write exit (false, WriteTooShort)");
    }
    // The smallest report that takes the data names the report id.
    for (const auto& [id, size] : report_sizes_) {
        if (size >= report.size()) {
            report[0] = id;
            break;
        }
    }
    if (report.size() > output_report_length_) {
        set_error(WriteExceedsCollectionSize);
        return write_fail("Win32Device::write exit (false, WriteExceedsCollectionSize)");
    }
    report.resize(output_report_length_, 0);
    // A blocking caller waits for an answer that only the read thread can
    // deliver.
    if (blocking) {
        if (thread_wanted_ && on_read_thread()) {
            set_error(CannotPerformBlockingWriteOnReadThread);
            return write_fail(
                "Win32Device::write exit (false, CannotPerformBlockingWriteOnReadThread)");
        }
        if (!thread_wanted_) {
            set_error(CannotPerformWriteWithoutReadThreadRunning);
            DEVIO_LOG("Win32Device", 2, "write", "Win32Device::write dev=%s", path_.c_str());
            return write_fail(
                "Win32Device::write exit (false, CannotPerformWriteWithoutReadThreadRunning)");
        }
    }
    logReport(pid_, "W", report);

    std::uint32_t sys = 0;
    ErrorCode err = Success;
    bool general_failure = false;
    switch (system_->write_report(handle_, report, write_timeout_, sys)) {
        case WriteOutcome::Done:
            break;
        case WriteOutcome::TimedOut:
            DEVIO_LOG("Win32Device", 1, "write", "Win32Device::write timeout, waitresult=0x%08x",
                      0x102u);
            err = WriteTimeout;
            sys = 0;
            break;
        case WriteOutcome::Failed:
            err = WriteError;
            break;
        case WriteOutcome::GeneralFailure:
            err = WriteError;
            general_failure = true;
            break;
    }
    if (err == WriteError)
        DEVIO_LOG("Win32Device", 1, "write", "Win32Device::write WriteError, errcode_sys=%d",
                  static_cast<int>(sys));
    if (err == WriteTimeout)
        DEVIO_LOG("Win32Device", 1, "write", "Win32Device::write WriteTimeout");
    // The platform says which of its errors mean a transfer that a retry may
    // get through; the command engine retries on this code.
    if (general_failure) err = WriteGeneralFailure;
    if (err != Success) {
        set_error(err, nullptr, sys);
    } else {
        DEVIO_LOG("Win32Device", 3, "write", "Win32Device::write successful");
    }
    Producer<IHardwareDevice::Write>::produce(
        [report, err, sys](IHardwareDevice::Write* s) { s->onWrite(report, err, sys); },
        event_names::Win32DeviceWrite.onWrite);
    DEVIO_LOG("Win32Device", 3, "write", "Win32Device::write exit, ret=%d", err == Success);
    return err == Success;
}

}  // namespace devio
