// Configuration cookie: reading it (function 0) and writing it (function 1),
// a 16-bit value with its high byte first.

#include "Features/Feature0020ConfigChange.h"

#include "Base/ClassLog.h"
#include "Base/Coding.h"
#include "Base/ErrorRecord.h"
#include "Features/FeatureRegistry.h"

namespace devio {

namespace {
constexpr unsigned kGetCookie = 0;
constexpr unsigned kSetCookie = 1;
constexpr int kUncached = 0;
constexpr std::size_t kCookieSize = 2;

const FeatureRegistrar registrar(Feature0020ConfigChange::kId,
                                 &makeFeature<Feature0020ConfigChange>);
std::atomic<bool> included{false};
}  // namespace

IFeatureForceInclusion0020::IFeatureForceInclusion0020() {
    noteFeatureIncluded(included, "Feature0020ConfigChange",
                        "devio::IFeatureForceInclusion0020::IFeatureForceInclusion0020",
                        "Devio: Feature0020 included");
}

Feature0020ConfigChange::Feature0020ConfigChange(Byte featureIndex,
                                                 const std::shared_ptr<IDevice>& owner)
    : Feature(kId, featureIndex, owner) {}

bool Feature0020ConfigChange::GetCookie(std::uint16_t* cookie) {
    std::vector<Byte> a;
    if (!sendSynchronousFeatureCommand(kGetCookie, {}, a, kUncached)) return false;
    if (a.size() < kCookieSize) {
        set_error(CommandResponseTooShort);
        return false;
    }
    if (cookie != nullptr) *cookie = coding::be16(a, 0);
    return true;
}

bool Feature0020ConfigChange::SetCookie(std::uint16_t cookie) {
    std::vector<Byte> params;
    coding::put_be16(params, cookie);
    std::vector<Byte> a;
    return sendSynchronousFeatureCommand(kSetCookie, params, a, kUncached);
}

void Feature0020ConfigChange::onUnexpectedResponse(unsigned function, unsigned swid,
                                                   const std::vector<Byte>& params) {
    DEVIO_LOG("Feature0020ConfigChange", 2, "onUnexpectedResponse",
              "Feature0020ConfigChange::onUnexpectedResponse(func=%d, swid=0x%x)",
              static_cast<int>(function), swid);
    // Only the answer to a write carries a new cookie; the answer to another
    // program's read shows nothing new.
    if (function != kSetCookie) return;
    const std::uint16_t cookie = coding::be16(params, 0);
    Producer<IFeature0020ConfigChange::ConfigReport>::produce(
        [swid, cookie](IFeature0020ConfigChange::ConfigReport* s) { s->onCookieSet(swid, cookie); },
        event_names::Feature0020ConfigChangeConfigReport.onCookieSet);
}

}  // namespace devio
