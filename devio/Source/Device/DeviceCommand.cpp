// Device: the reliable command. Answers constant queries from the cache of
// responses, and otherwise retries over lost answers, error bytes that mean
// "busy" and software id collisions, pinging the device before each retry.

#include <chrono>
#include <cstdlib>
#include <thread>

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Device/Device.h"
#include "Device/VxpReport.h"

namespace devio {

namespace {
// Failures that a ping and a second try may cure: a lost answer, a busy
// device, a write that the platform refused once, another program on our id.
bool soft_for_ping(ErrorCode err) {
    return err == NoResponse || err == Vxp20Error8 || err == WriteGeneralFailure ||
           err == SwidCollision;
}
bool soft_for_command(ErrorCode err) {
    return soft_for_ping(err) || err == Vxp10Error7 || err == Vxp10Error9;
}
constexpr Byte kFirstEchoByte = 16;
constexpr int kLastEchoByte = 255;
// The root feature's ping: its third parameter comes back unchanged.
const Device::Match kPingMatch{2};
}  // namespace

bool Device::cache_lookup(const std::vector<Byte>& command, std::vector<Byte>& out) {
    if (!cache.lookup(command, out)) {
        DEVIO_LOG("Device", 3, "sendSynchronousCommand", "requested command not in cache:");
        return false;
    }
    if (out.size() > 3) out[3] = vxp::with_swid(out[3], swid());
    DEVIO_LOG("Device", 2, "sendSynchronousCommand",
              "sendSynchronousCommand exit (true, returning cached data)");
    return true;
}

void Device::cache_store(const std::vector<Byte>& command, const std::vector<Byte>& answer) {
    const unsigned id = swid();
    if (command.size() < 4 || answer.size() < 4 || command[2] >= vxp::kFirstUncachedIndex) return;
    // An answer under another id is another program's business.
    if (vxp::swid_of(command[3]) != id || vxp::swid_of(answer[3]) != id) return;
    cache.store(command, answer);
}

bool Device::ping(const std::vector<Byte>& command, int attempt, bool& start_over) {
    start_over = false;
    if (attempt > 0) {
        DEVIO_LOG("Device", 3, "sendSynchronousCommand", "delaying before ping");
        // Growing delays give a device that is busy or resetting time to
        // come back; the jitter keeps two processes from retrying in step.
        const std::int32_t jitter = exchange_timing.ping_jitter_ms;
        const std::int32_t delay =
            (exchange_timing.ping_delay_ms << attempt) + (jitter > 0 ? std::rand() % jitter : 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    }
    DEVIO_LOG("Device", 3, "sendSynchronousCommand", "sending ping");
    const auto echo = static_cast<Byte>(rand_range(kFirstEchoByte, kLastEchoByte));
    const unsigned id = apply_swid_switch();
    const std::vector<Byte> report{vxp::kShortReportId,
                                   vxp::byte_at(command, 1),
                                   0x00,
                                   static_cast<Byte>(0x10 | id),
                                   0x00,
                                   0x00,
                                   echo};
    std::vector<Byte> answer;
    if (sendSynchronousCommandWithoutRetry(report, answer, kPingMatch, false)) {
        DEVIO_LOG("Device", 3, "sendSynchronousCommand", "ping successful");
        // Another collision came in while we pinged: ping again.
        start_over = need_ping.load();
        return true;
    }
    const ErrorCode err = error_record().err;
    if (soft_for_ping(err)) {
        DEVIO_LOG("Device", 2, "sendSynchronousCommand",
                  "on ping soft error errcode=%d, will ping and retry %d more times",
                  static_cast<int>(err), exchange_timing.retries - attempt);
        need_ping = true;
        start_over = true;
        return true;
    }
    DEVIO_LOG("Device", 2, "sendSynchronousCommand",
              "Device::sendSynchronousCommand exit (false, ping hard error %d)",
              static_cast<int>(err));
    return false;
}

bool Device::sendSynchronousCommand(const std::vector<Byte>& command, std::vector<Byte>& out,
                                    int cache_mode, const Match& match) {
    DEVIO_LOG("Device", 2, "sendSynchronousCommand", "sendSynchronousCommand enter, dev=%s",
              hw_path.c_str());
    if (command.size() >= 4) {
        DEVIO_LOG("Device", 3, "sendSynchronousCommand",
                  "sendSynchronousCommand cmd starts with %02x %02x %02x %02x", command[0],
                  command[1], command[2], command[3]);
    }
    // Only constant queries of features are cached; the rest of the index
    // space holds error reports and registers, which are never constant.
    if (cache_mode == 1 && vxp::byte_at(command, 2) >= vxp::kFirstUncachedIndex) cache_mode = 0;
    if (cache_mode == 1 && cache_lookup(command, out)) return true;

    for (int attempt = 0; attempt <= exchange_timing.retries;) {
        if (need_ping.exchange(false)) {
            DEVIO_LOG("Device", 3, "sendSynchronousCommand", "need a ping");
            if (!feature_based()) {
                DEVIO_LOG("Device", 3, "sendSynchronousCommand",
                          "not sending ping because device not feature based");
            } else {
                bool start_over = false;
                if (!ping(command, attempt, start_over)) {
                    cookie = 0;
                    return false;
                }
                if (start_over) {
                    ++attempt;
                    continue;
                }
            }
        }
        if (need_fw_check && !do_fwcheck()) {
            DEVIO_LOG("Device", 1, "sendSynchronousCommand",
                      "before sending command the fw check failed, err=%d",
                      static_cast<int>(error_record().err));
            cookie = 0;
            return false;
        }
        std::vector<Byte> copy = command;
        if (copy.size() > 3 && feature_based()) copy[3] = vxp::with_swid(copy[3], swid());
        if (sendSynchronousCommandWithoutRetry(copy, out, match, true)) {
            DEVIO_LOG("Device", 2, "sendSynchronousCommand",
                      "sendSynchronousCommand exit (true, success)");
            if (cache_mode == 1) cache_store(copy, out);
            return true;
        }
        const ErrorCode err = error_record().err;
        if (!soft_for_command(err)) {
            DEVIO_LOG("Device", 2, "sendSynchronousCommand",
                      "synchronous command hard error errcode=%d", static_cast<int>(err));
            cookie = 0;
            return false;
        }
        DEVIO_LOG("Device", 2, "sendSynchronousCommand",
                  "synchronous command soft error errcode=%d, will ping and retry %d more times",
                  static_cast<int>(err), exchange_timing.retries - attempt);
        need_ping = true;
        // The device may have been reset or reflashed while it was silent.
        if (err == NoResponse) need_fw_check = true;
        ++attempt;
    }
    set_error(NoResponse);
    DEVIO_LOG("Device", 2, "sendSynchronousCommand",
              "sendSynchronousCommand exit (false, NoResponse)");
    cookie = 0;
    return false;
}

}  // namespace devio
