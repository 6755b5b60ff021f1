#include "Features/Feature0001FeatureSet.h"

#include "Base/ClassLog.h"
#include "Base/Coding.h"
#include "Base/ErrorRecord.h"
#include "Features/FeatureFlags.h"
#include "Features/FeatureRegistry.h"

namespace devio {

namespace {
constexpr unsigned kGetCount = 0;
constexpr unsigned kGetFeatureId = 1;
constexpr std::size_t kFeatureRecordSize = 4;

const FeatureRegistrar registrar(Feature0001FeatureSet::kId, &makeFeature<Feature0001FeatureSet>);
std::atomic<bool> included{false};
}  // namespace

IFeatureForceInclusion0001::IFeatureForceInclusion0001() {
    noteFeatureIncluded(included, "Feature0001FeatureSet",
                        "devio::IFeatureForceInclusion0001::IFeatureForceInclusion0001",
                        "Devio: Feature0001 included");
}

Feature0001FeatureSet::Feature0001FeatureSet(Byte featureIndex,
                                             const std::shared_ptr<IDevice>& owner)
    : Feature(kId, featureIndex, owner) {}

bool Feature0001FeatureSet::GetCount(unsigned* count) {
    std::vector<Byte> answer;
    if (!sendSynchronousFeatureCommand(kGetCount, {}, answer, 1)) return false;
    if (answer.empty()) {
        set_error(CommandResponseTooShort);
        return false;
    }
    if (count != nullptr) *count = answer[0];
    DEVIO_LOG("Feature0001FeatureSet", 2, "GetCount",
              "Feature0001FeatureSet::GetCount(* count = %d)", answer[0]);
    return true;
}

bool Feature0001FeatureSet::GetFeatureID(unsigned featureIndex, unsigned* featureID,
                                         bool* engineeringHidden, bool* swHidden, bool* isObsolete,
                                         unsigned* featureVersion) {
    std::vector<Byte> answer;
    if (!sendSynchronousFeatureCommand(kGetFeatureId, {static_cast<Byte>(featureIndex)}, answer, 1))
        return false;
    // A short answer reads as id 0 with no flags rather than failing.
    answer.resize(kFeatureRecordSize);
    const unsigned fid = coding::be16(answer, 0);
    const auto [obs, hid, eng] = decode_feature_flags(answer[2]);
    const unsigned ver = answer[3];
    if (featureID != nullptr) *featureID = fid;
    if (engineeringHidden != nullptr) *engineeringHidden = eng;
    if (swHidden != nullptr) *swHidden = hid;
    if (isObsolete != nullptr) *isObsolete = obs;
    if (featureVersion != nullptr) *featureVersion = ver;
    DEVIO_LOG("Feature0001FeatureSet", 2, "GetFeatureID",
              "Feature0001FeatureSet::GetFeatureID(featureIndex = %d, *featureID = 0x%08x, "
              "*engineeringHidden = %d, *swHidden = %d, *obsolete = %d, *version = %d)",
              featureIndex, fid, eng, hid, obs, ver);
    return true;
}

}  // namespace devio
