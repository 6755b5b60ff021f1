#include "Bus/Braid/VXP10Command.h"

#include <algorithm>
#include <string>
#include <vector>

#include "Base/ErrorRecord.h"
#include "Bus/Braid/BraidWire.h"
#include "Device/Device.h"
#include "xlog.h"

namespace devio {

namespace {
using namespace braid;
constexpr Byte kNameBase = 0x40;
constexpr Byte kFakeArrival = 0x02;
constexpr std::size_t kNameAnswer = 16;
constexpr std::size_t kNameLengthAt = 5;
constexpr std::size_t kNameAt = 6;
// Hosts know the null-device failure under this number, which it shares
// with the VXP 1.0 error 11.
constexpr ErrorCode kNullDevice = static_cast<ErrorCode>(19);

void say(const char* op, const char* what) {
    const std::string function = std::string("devio::VXP10Command::") + op;
    xLog("Devio", 2, function.c_str(), "VXP10Command::%s %s", op, what);
}

bool null_device(const char* op, const char* text) {
    set_error(kNullDevice, text);
    say(op, "exit (false, null device pointer)");
    return false;
}

bool finish(const char* op, bool ok) {
    say(op, ok ? "exit (success)" : "exit (fail)");
    return ok;
}
}  // namespace

bool VXP10Command::set_receiver_connection_state(Device* device, bool fakeArrival) {
    const char* fn = "set_receiver_connection_state";
    say(fn, "enter");
    if (device == nullptr) {
        return null_device(fn, "null device pointer passed to set_receiver_connection_state!");
    }
    const std::vector<Byte> command{kReportId,
                                    kReceiverIndex,
                                    kWriteShort,
                                    kConnectionState,
                                    static_cast<Byte>(fakeArrival ? kFakeArrival : 0),
                                    0,
                                    0};
    std::vector<Byte> response;
    // The answer carries nothing we use.
    const bool ok = device->sendSynchronousCommand(command, response, 0, {});
    return finish(fn, ok);
}

bool VXP10Command::read_receiver_connection_state(Device* device, unsigned* count,
                                                  unsigned* other) {
    const char* fn = "read_receiver_connection_state";
    say(fn, "enter");
    if (device == nullptr) {
        return null_device(fn, "null device pointer passed to read_receiver_connection_state!");
    }
    const std::vector<Byte> command{kReportId, kReceiverIndex, kReadShort, kConnectionState, 0, 0,
                                    0};
    std::vector<Byte> response;
    bool ok = device->sendSynchronousCommand(command, response, 0, {});
    if (ok && response.size() < kShortReport) {
        set_error(CommandResponseTooShort);
        ok = false;
    }
    if (ok) {
        if (count != nullptr) *count = response[5];
        if (other != nullptr) *other = response[6];
    }
    return finish(fn, ok);
}

bool VXP10Command::read_receiver_paired_device_name(Device* device, unsigned index,
                                                    std::string* name) {
    const char* fn = "read_receiver_paired_device_name";
    say(fn, "enter");
    if (device == nullptr) {
        return null_device(fn, "null device pointer passed to read_receiver_paired_device_name!");
    }
    const std::vector<Byte> command{
        kReportId, kReceiverIndex, kReadLong, kPairedName, static_cast<Byte>(kNameBase + index), 0,
        0};
    std::vector<Byte> response;
    // The answer must name the slot asked for.
    bool ok = device->sendSynchronousCommand(command, response, 0, {0});
    if (ok && response.size() < kNameAnswer) {
        set_error(CommandResponseTooShort);
        ok = false;
    }
    if (ok && name != nullptr) {
        // A length past the report takes what the report holds.
        const std::size_t length = response[kNameLengthAt];
        const std::size_t end = std::min(response.size(), kNameAt + length);
        name->assign(response.begin() + kNameAt, response.begin() + end);
    }
    return finish(fn, ok);
}

}  // namespace devio
