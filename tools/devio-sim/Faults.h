#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "Outbox.h"
#include "Report.h"

namespace devio_sim {

// The faults that one device (or a receiver itself) is told to show in its
// answers. Counts are numbers of commands; kForever lasts until clear().
//
// Not thread-safe: used on the machine's serving thread only.
class Faults {
public:
    static constexpr int kForever = -1;

    // The next `n` commands are carried out but their answers are lost.
    void drop(int n) { drop_ = n; }
    // The next `n` answers go out `ms` milliseconds late.
    void delay(int ms, int n) { delay_ms_ = ms, delay_ = n; }
    // For the next `n` commands the device answers one command behind: each
    // gets the answer of the command before it, and its own is held back for
    // the next. When the count runs out the held answer is forgotten.
    void late(int n) { late_ = n; }
    // The next `n` answers carry software id `swid` instead of the host's.
    void swid(Byte swid, int n) { swid_ = swid, swid_count_ = n; }
    // The next `n` commands are refused with an error report of protocol
    // version `version` (1 or 2) and error byte `error`, without being
    // carried out.
    void error(int version, Byte error, int n) {
        error_version_ = version, error_byte_ = error, error_ = n;
    }
    // Receivers only. For `ms` milliseconds after each plug the receiver
    // answers nothing at all, as a receiver that is still starting.
    void silentAfterPlug(int ms) { silent_after_plug_ms_ = ms; }
    // The receiver was plugged in now.
    void plugged() { plugged_at_ = Clock::now(); }
    bool silent() const {
        return silent_after_plug_ms_ > 0 &&
               Clock::now() < plugged_at_ + std::chrono::milliseconds(silent_after_plug_ms_);
    }
    // Receivers only: the count of paired devices says `n` more than the
    // receiver then announces.
    void overcount(int n) { overcount_ = n; }
    int overcount() const { return overcount_; }
    void clear() {
        const Clock::time_point plugged_at = plugged_at_;
        *this = Faults{};
        plugged_at_ = plugged_at;
    }

    // Runs one command through the faults. `process` is the device's own
    // handling; it is not called when an error answer replaces it.
    void respond(const Report& request, const std::function<std::optional<Report>()>& process,
                 Outbox& out);

    // The faults in force, in the words of the control commands.
    std::string describe() const;
    // How late the last answer went out, in milliseconds; -1 when the last
    // command got none.
    int lastDelayMs() const { return last_delay_ms_; }

private:
    using Clock = std::chrono::steady_clock;

    int drop_ = 0;
    int delay_ = 0;
    int delay_ms_ = 0;
    int late_ = 0;
    std::optional<Report> last_answer_;
    int swid_count_ = 0;
    Byte swid_ = 0;
    int error_ = 0;
    int error_version_ = 2;
    Byte error_byte_ = 0;
    int last_delay_ms_ = -1;
    int silent_after_plug_ms_ = 0;
    Clock::time_point plugged_at_{};
    int overcount_ = 0;
};

}  // namespace devio_sim
