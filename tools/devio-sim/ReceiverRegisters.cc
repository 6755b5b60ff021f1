// The receiver's own registers, reached with the register sub ids at device
// index 0xFF.

#include "ErrorBytes.h"
#include "Receiver.h"

namespace devio_sim {

namespace {
constexpr Byte kWriteShort = 0x80;
constexpr Byte kReadShort = 0x81;
constexpr Byte kReadLong = 0x83;

constexpr Byte kNotificationFlags = 0x00;
constexpr Byte kConnectionState = 0x02;
constexpr Byte kRegister3 = 0x03;
constexpr Byte kPairing = 0xB2;
constexpr Byte kSlotStatus = 0xB3;
constexpr Byte kPairedName = 0xB5;

constexpr Byte kFakeArrival = 0x02;
constexpr Byte kOpenLock = 1, kCloseLock = 2, kUnpair = 3;
constexpr Byte kLockChangeSubId = 0x4A;
constexpr Byte kNameBase = 0x40;
// Parameter bytes of a long report; long answers are padded to it so that
// they go out as long reports.
constexpr std::size_t kLongParams = kLongReportSize - kHeaderSize;
// What is left of a long report behind the address and length bytes.
constexpr std::size_t kMaxPairedName = kLongParams - 2;

Report answer(const Report& request, const std::vector<Byte>& params) {
    return makeReport(byteAt(request, 0), kReceiverIndex, byteAt(request, 2), byteAt(request, 3),
                      params);
}
}  // namespace

std::optional<Report> Receiver::registerCommand(const Report& request, Outbox& out) {
    switch (request[2]) {
        case kReadShort:
            return readShort(request);
        case kWriteShort:
            return writeShort(request, out);
        case kReadLong:
            return readLong(request);
        default:
            if (request[2] == kVxp10ErrorSubId || request[2] == kVxp20ErrorIndex)
                return std::nullopt;
            // Feature requests included: a receiver speaks registers only.
            return errorReport(request, 1, vxp10::kUnsupportedSubId);
    }
}

std::optional<Report> Receiver::readShort(const Report& request) {
    switch (request[3]) {
        case kNotificationFlags:
            return answer(request, {register0_[0], register0_[1], register0_[2]});
        case kConnectionState: {
            const auto paired = std::count_if(slots_.begin(), slots_.end(),
                                              [](const Slot& s) { return s.device != nullptr; });
            return answer(request, {0, static_cast<Byte>(paired + faults_.overcount()), 0});
        }
        case kRegister3:
            return answer(request, {register3_[0], register3_[1], register3_[2]});
        default:
            return errorReport(request, 1, vxp10::kUnknownRegister);
    }
}

std::optional<Report> Receiver::writeShort(const Report& request, Outbox& out) {
    const Byte p0 = byteAt(request, 4), p1 = byteAt(request, 5), p2 = byteAt(request, 6);
    switch (request[3]) {
        case kNotificationFlags:
            register0_ = {p0, p1, p2};
            break;
        case kRegister3:
            register3_ = {p0, p1, p2};
            break;
        case kConnectionState:
            if (p0 == kFakeArrival) {
                // One arrival per paired device, all before the answer.
                for (std::size_t i = 0; i < slots_.size(); ++i) {
                    if (slots_[i].device) sendArrival(static_cast<int>(i + 1), out);
                }
            } else if (p0 != 0) {
                return errorReport(request, 1, vxp10::kBadValue);
            }
            break;
        case kPairing:
            if (p0 == kOpenLock || p0 == kCloseLock) {
                lock_open_ = p0 == kOpenLock;
                after_answer_.push_back(Report{kShortReportId, kReceiverIndex, kLockChangeSubId,
                                               Byte(lock_open_ ? 1 : 0), 0, 0, 0});
            } else if (p0 == kUnpair && p1 >= 1 && p1 <= slots_.size() && slots_[p1 - 1].device) {
                // The slot empties now; the removal follows the answer.
                if (auto removal = removeFromSlot(p1)) after_answer_.push_back(*removal);
            } else {
                return errorReport(request, 1, vxp10::kBadValue);
            }
            break;
        default:
            return errorReport(request, 1, vxp10::kUnknownRegister);
    }
    return answer(request, {0, 0, 0});
}

std::optional<Report> Receiver::readLong(const Report& request) {
    std::vector<Byte> params;
    if (request[3] == kSlotStatus) {
        for (const Slot& s : slots_)
            params.push_back(s.device ? s.device->firmware().device().slot_status : 0);
    } else if (request[3] == kPairedName) {
        const Byte address = byteAt(request, 4);
        const std::size_t index = static_cast<std::size_t>(address - kNameBase);
        if (address < kNameBase || index >= slots_.size() || !slots_[index].device) {
            return errorReport(request, 1, vxp10::kBadValue);
        }
        std::string name = slots_[index].device->firmware().device().name;
        if (name.size() > kMaxPairedName) name.resize(kMaxPairedName);
        params = {address, static_cast<Byte>(name.size())};
        params.insert(params.end(), name.begin(), name.end());
    } else {
        return errorReport(request, 1, vxp10::kUnknownRegister);
    }
    params.resize(kLongParams, 0);
    return makeReport(kLongReportId, kReceiverIndex, request[2], request[3], params);
}

}  // namespace devio_sim
