#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include "Base/Byte.h"

namespace devio {

// The one command in flight on a device and the answer that completes it:
// the command, the payload positions that its answer must repeat, the answer
// itself, and the workaround for devices that answer one command late, which
// needs the previous command too.
//
// Threads: the engine's caller, holding `device_mutex`, arms the exchange,
// sends, waits and closes it, holding `command_mutex` throughout but for the
// wait; the read thread offers each report under `command_mutex`; `abandon`
// releases the waiter from any thread. Callers take `command_mutex` as a
// `Hold` and pass it to every operation that needs it held, so that what
// they do between two operations (write to the hardware, log) stays inside
// one critical section. Lock order: `device_mutex`, then `command_mutex`.
class PendingExchange {
public:
    using Hold = std::unique_lock<std::mutex>;
    using Match = std::vector<std::uint32_t>;

    Hold hold() { return Hold(command_mutex); }

    // The engine's side.
    void arm(const Hold& hold, const std::vector<Byte>& command, const Match& match);
    // The command never went out: nothing is awaited any more.
    void abort(const Hold& hold);
    // True when an answer came, or the waiter was released, within `timeout`.
    bool wait(Hold& hold, std::chrono::milliseconds timeout);
    // Ends the exchange, answered or not. A late device may still answer it,
    // which is what makes it the previous command.
    void close(const Hold& hold);
    // Whether the answer was the previous command's; true once.
    bool take_late_answer(const Hold& hold);
    const std::vector<Byte>& answer(const Hold& hold) const;

    // The read thread's side: what a report is to the exchange.
    enum class Offer {
        Idle,         // no command in flight
        Expired,      // the waiter has given up on its command
        ErrorAnswer,  // an error report for the command: it completes it
        Answer,       // the answer: it completes the command
        LateAnswer,   // the previous command's answer: completes the command
                      // without an answer, and the workaround is on from now
        NotOurs,
    };
    // Why an answer-like report did not complete the command.
    enum class Mismatch { None, Header, Payload };
    Offer offer(const Hold& hold, const std::vector<Byte>& report, Mismatch& mismatch);
    // Wakes the waiter after an offer completed the command and the hold
    // was left.
    void wake();

    // Any thread: the waiter wakes at once, as if answered.
    void release_waiter();

    // Set up once, before the first command, for devices behind a receiver.
    void enable_brb();
    // While on, each command is followed by a request whose answer flushes
    // the late answer to it out of the device.
    bool brb_workaround_active() const { return brb_active; }
    // A (re)connected device starts without the late answers it had.
    void deactivate_brb() { brb_active = false; }

private:
    void complete(const std::vector<Byte>& report);

    // All guarded by command_mutex.
    Match match_indices, prev_match_indices;
    // `pending_command` is empty when no command is in flight.
    std::vector<Byte> pending_command, prev_command, response;
    bool read_completed = true;
    bool initiated_brb_workaround = false;
    bool brb_enabled = false;
    std::mutex command_mutex;
    std::condition_variable command_cv;
    // Set by the read thread under command_mutex; read by the engine, and
    // atomic so that it may be read without the lock.
    std::atomic<bool> brb_active{false};
};

}  // namespace devio
