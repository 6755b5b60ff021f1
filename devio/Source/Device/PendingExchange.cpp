// The pending exchange: which report completes the command in flight.

#include "Device/PendingExchange.h"

#include "Device/VxpReport.h"

namespace devio {

void PendingExchange::arm(const Hold& /*hold*/, const std::vector<Byte>& command,
                          const Match& match) {
    pending_command = command;
    read_completed = false;
    match_indices = match;
    initiated_brb_workaround = false;
}

void PendingExchange::abort(const Hold& hold) {
    read_completed = true;
    close(hold);
}

bool PendingExchange::wait(Hold& hold, std::chrono::milliseconds timeout) {
    return command_cv.wait_for(hold, timeout, [this] { return read_completed; });
}

void PendingExchange::close(const Hold& /*hold*/) {
    if (brb_enabled) {
        prev_command = pending_command;
        prev_match_indices = match_indices;
    }
    // After a time-out `read_completed` stays false: an answer that comes
    // now finds a command in progress, but none to complete.
    pending_command.clear();
}

bool PendingExchange::take_late_answer(const Hold& /*hold*/) {
    const bool late = initiated_brb_workaround;
    initiated_brb_workaround = false;
    return late;
}

const std::vector<Byte>& PendingExchange::answer(const Hold& /*hold*/) const {
    return response;
}

PendingExchange::Offer PendingExchange::offer(const Hold& /*hold*/, const std::vector<Byte>& report,
                                              Mismatch& mismatch) {
    mismatch = Mismatch::None;
    if (read_completed) return Offer::Idle;
    if (pending_command.empty()) return Offer::Expired;
    if (vxp::is_error_response(report, pending_command)) {
        complete(report);
        return Offer::ErrorAnswer;
    }
    if (!vxp::header_matches(report, pending_command)) {
        mismatch = Mismatch::Header;
    } else if (vxp::payload_matches(report, pending_command, match_indices)) {
        complete(report);
        return Offer::Answer;
    } else {
        mismatch = Mismatch::Payload;
    }
    // A device that answers one command late sends the answer to the
    // previous command now; the engine then flushes each answer out.
    if (brb_enabled && !brb_active && vxp::header_matches(report, prev_command) &&
        vxp::payload_matches(report, prev_command, prev_match_indices)) {
        brb_active = true;
        initiated_brb_workaround = true;
        complete(report);
        return Offer::LateAnswer;
    }
    return Offer::NotOurs;
}

void PendingExchange::complete(const std::vector<Byte>& report) {
    response = report;
    read_completed = true;
}

void PendingExchange::wake() {
    command_cv.notify_all();
}

void PendingExchange::release_waiter() {
    {
        std::lock_guard<std::mutex> lock(command_mutex);
        read_completed = true;
    }
    command_cv.notify_all();
}

void PendingExchange::enable_brb() {
    std::lock_guard<std::mutex> lock(command_mutex);
    brb_enabled = true;
}

}  // namespace devio
