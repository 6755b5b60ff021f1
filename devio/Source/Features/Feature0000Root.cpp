// Root feature: function 0 maps an id to an index, function 1 tells the
// protocol version and doubles as the ping.

#include "Features/Feature0000Root.h"

#include "Base/ClassLog.h"
#include "Base/Coding.h"
#include "Base/ErrorRecord.h"
#include "Features/FeatureFlags.h"
#include "Features/FeatureRegistry.h"

namespace devio {

namespace {
constexpr unsigned kGetFeature = 0;
constexpr unsigned kGetProtocolVersion = 1;
constexpr std::size_t kFeatureRecordSize = 3;
constexpr std::size_t kVersionSize = 3;
constexpr std::size_t kPingPosition = 2;

const FeatureRegistrar registrar(Feature0000Root::kId, &makeFeature<Feature0000Root>);
std::atomic<bool> included{false};
}  // namespace

IFeatureForceInclusion0000::IFeatureForceInclusion0000() {
    noteFeatureIncluded(included, "Feature0000Root",
                        "devio::IFeatureForceInclusion0000::IFeatureForceInclusion0000",
                        "Devio: Feature0000 included");
}

Feature0000Root::Feature0000Root(Byte featureIndex, const std::shared_ptr<IDevice>& owner)
    : Feature(kId, featureIndex, owner) {}

bool Feature0000Root::GetFeature(unsigned featureId, unsigned* featureIndex, bool* isObsolete,
                                 bool* isHidden, bool* isEngineering, unsigned* featureVersion,
                                 bool cached) {
    std::vector<Byte> params;
    coding::put_be16(params, featureId);
    std::vector<Byte> answer;
    if (!sendSynchronousFeatureCommand(kGetFeature, params, answer, cached ? 1 : 0)) return false;
    // A short answer reads as "not present" rather than failing.
    answer.resize(kFeatureRecordSize);
    const unsigned idx = answer[0];
    const auto [obs, hid, eng] = decode_feature_flags(answer[1]);
    const unsigned ver = answer[2];
    if (featureIndex != nullptr) *featureIndex = idx;
    if (isObsolete != nullptr) *isObsolete = obs;
    if (isHidden != nullptr) *isHidden = hid;
    if (isEngineering != nullptr) *isEngineering = eng;
    if (featureVersion != nullptr) *featureVersion = ver;
    DEVIO_LOG("Feature0000Root", 2, "GetFeature",
              "Feature0000Root::GetFeature(featureId = 0x%08x, *featureIndex = %d, *obsolete = "
              "%d, *hidden = %d, *engineering = %d, *version = %d)",
              featureId & 0xFFFF, idx, obs, hid, eng, ver);
    return true;
}

bool Feature0000Root::GetProtocolVersion(Byte pingSent, unsigned* protocolOut,
                                         unsigned* targetswOut, unsigned* pingReceived) {
    const std::vector<Byte> params{0, 0, pingSent};
    std::vector<Byte> answer;
    // Only a request without ping data is a constant query.
    if (!sendSynchronousFeatureCommand(kGetProtocolVersion, params, answer, pingSent == 0 ? 1 : 0))
        return false;
    if (answer.size() < kVersionSize) {
        set_error(CommandResponseTooShort);
        return false;
    }
    if (protocolOut != nullptr) *protocolOut = answer[0];
    if (targetswOut != nullptr) *targetswOut = answer[1];
    if (pingReceived != nullptr) *pingReceived = answer[2];
    DEVIO_LOG("Feature0000Root", 2, "GetProtocolVersion",
              "Feature0000Root::GetProtocolVersion(ping_sent = %d, *protocol = %d, *targetsw = "
              "%d, *ping_received = %d",
              pingSent, answer[0], answer[1], answer[2]);
    return true;
}

bool Feature0000Root::TargetSw(unsigned* protocolOut, unsigned* targetswOut) {
    if (!targetSwRead) {
        unsigned readProtocol = 0;
        unsigned readTargetSw = 0;
        if (!GetProtocolVersion(0, &readProtocol, &readTargetSw, nullptr)) return false;
        protocol = static_cast<Byte>(readProtocol);
        targetSw = static_cast<Byte>(readTargetSw);
        targetSwRead = true;
    }
    if (protocolOut != nullptr) *protocolOut = protocol;
    if (targetswOut != nullptr) *targetswOut = targetSw;
    DEVIO_LOG("Feature0000Root", 2, "TargetSw",
              "Feature0000Root::TargetSw(*protocol = %d, *targetsw = %d", protocol, targetSw);
    return true;
}

bool Feature0000Root::Ping(Byte data) {
    const std::vector<Byte> params{0, 0, data};
    std::vector<Byte> answer;
    // Another program's ping answer must not pass for ours.
    if (!sendSynchronousFeatureCommandMatching(kGetProtocolVersion, params, answer, 0,
                                               {kPingPosition}))
        return false;
    if (answer.size() < kVersionSize) {
        set_error(CommandResponseTooShort);
        return false;
    }
    if (answer[kPingPosition] != data) {
        set_error(PingEchoMismatch);
        return false;
    }
    DEVIO_LOG("Feature0000Root", 2, "Ping", "Feature0000Root::Ping(%d)", data);
    return true;
}

}  // namespace devio
