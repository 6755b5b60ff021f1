#include "Firmware.h"

#include "ErrorBytes.h"
#include "features/Feature.h"

namespace devio_sim {

namespace {
constexpr Byte kFirstRegisterSubId = 0x80;
constexpr Byte kLastRegisterSubId = 0x83;
constexpr std::uint16_t kConfigChange = 0x0020;

Report answer(const Report& request, const std::vector<Byte>& params) {
    return makeReport(byteAt(request, 0), byteAt(request, 1), byteAt(request, 2),
                      byteAt(request, 3), params);
}
}  // namespace

std::optional<Report> Firmware::handle(const Report& request) {
    if (request.size() < kHeaderSize) return std::nullopt;
    const Byte sub = request[2];
    if (sub == kVxp10ErrorSubId || sub == kVxp20ErrorIndex) return std::nullopt;
    if (sub >= kFirstRegisterSubId) {
        // A device has no registers of its own: those live in receivers.
        const bool reg = sub <= kLastRegisterSubId;
        return errorReport(request, 1, reg ? vxp10::kUnknownRegister : vxp10::kUnsupportedSubId);
    }
    if (device_.vxp == 1) return errorReport(request, 1, vxp10::kUnsupportedSubId);
    return handleFeature(request);
}

std::optional<Report> Firmware::handleFeature(const Report& request) {
    const Byte index = request[2];
    FeatureHandler handler = nullptr;
    if (index == 0) {
        handler = rootFeature;
    } else if (index <= device_.features.size()) {
        handler = featureHandler(device_.features[index - 1].id);
        if (handler == nullptr) return errorReport(request, 2, vxp20::kUnknownFunction);
    } else {
        return errorReport(request, 2, vxp20::kUnknownFeature);
    }
    const Reply reply = handler(device_, Call{static_cast<Byte>(request[3] >> 4), request});
    if (!reply.ok) return errorReport(request, 2, reply.error);
    return answer(request, reply.params);
}

std::optional<Report> Firmware::notification(Byte index, std::uint16_t feature_id, Byte function,
                                             const std::vector<Byte>& params) const {
    const Byte at = device_.featureIndex(feature_id);
    if (at == 0 || device_.vxp != 2) return std::nullopt;
    // Software id 0 marks a notification.
    return answer(Report{kShortReportId, index, at, static_cast<Byte>(function << 4)}, params);
}

std::optional<Report> Firmware::cookieWrittenByOtherHost(Byte index, std::uint16_t cookie,
                                                         Byte swid) {
    const Byte at = device_.featureIndex(kConfigChange);
    if (at == 0 || device_.vxp != 2) return std::nullopt;
    device_.cookie = cookie;
    const Report write{kShortReportId, index, at, static_cast<Byte>(0x10 | (swid & 0x0F))};
    std::vector<Byte> params;
    putBe16(params, cookie);
    return answer(write, params);
}

}  // namespace devio_sim
