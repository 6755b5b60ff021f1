#include "Faults.h"

#include "ErrorBytes.h"

namespace devio_sim {

namespace {
// Takes one from a count, and reports whether the fault applies.
bool use(int& count) {
    if (count == 0) return false;
    if (count > 0) --count;
    return true;
}

std::string countText(int n) {
    return n == Faults::kForever ? "on" : std::to_string(n);
}
}  // namespace

void Faults::respond(const Report& request, const std::function<std::optional<Report>()>& process,
                     Outbox& out) {
    last_delay_ms_ = -1;
    std::optional<Report> answer =
        use(error_) ? std::optional<Report>(errorReport(request, error_version_, error_byte_))
                    : process();
    if (!answer) return;
    if (use(swid_count_) && answer->size() > 4) {
        // An error report carries the function and software id one byte on.
        const bool is_error = (*answer)[2] == kVxp10ErrorSubId || (*answer)[2] == kVxp20ErrorIndex;
        Byte& b = (*answer)[is_error ? 4 : 3];
        b = static_cast<Byte>((b & 0xF0) | (swid_ & 0x0F));
    }
    if (use(late_)) {
        std::optional<Report> previous = std::move(last_answer_);
        last_answer_ = std::move(answer);
        if (!previous) return;
        answer = std::move(previous);
    } else {
        last_answer_ = answer;
    }
    if (use(drop_)) return;
    last_delay_ms_ = use(delay_) ? delay_ms_ : 0;
    out.send(*answer, last_delay_ms_);
}

std::string Faults::describe() const {
    std::string s;
    if (drop_ != 0) s += " drop " + countText(drop_);
    if (delay_ != 0) s += " delay " + std::to_string(delay_ms_) + " " + countText(delay_);
    if (late_ != 0) s += " late " + countText(late_);
    if (swid_count_ != 0) s += " swid " + std::to_string(swid_) + " " + countText(swid_count_);
    if (error_ != 0) {
        s += " error " + std::to_string(error_version_) + " " + std::to_string(error_byte_) + " " +
             countText(error_);
    }
    if (silent_after_plug_ms_ != 0) s += " silent " + std::to_string(silent_after_plug_ms_);
    if (overcount_ != 0) s += " overcount " + std::to_string(overcount_);
    return s.empty() ? "none" : s.substr(1);
}

}  // namespace devio_sim
