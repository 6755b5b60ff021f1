// Firmware information: entity count and product ids (function 0), one
// entity's type, prefix, version and build (function 1), and the version
// texts built from them.

#include "Features/Feature0003FirmwareInfo.h"

#include <cctype>
#include <cstdlib>
#include <sstream>

#include "Base/ClassLog.h"
#include "Base/Coding.h"
#include "Base/ErrorRecord.h"
#include "Device/IDevice.h"
#include "Device/VxpReport.h"
#include "Features/FeatureRegistry.h"

namespace devio {

namespace {
constexpr unsigned kGetEntityCount = 0;
constexpr unsigned kGetFwInfo = 1;
constexpr std::size_t kFwInfoSize = 16;
constexpr std::size_t kPrefixSize = 3;
constexpr std::size_t kExtraDataOffset = 9;
constexpr unsigned kApplicationKind = 0;
constexpr unsigned kBootloaderKind = 1;
constexpr std::uint32_t kMainFwType = 0;

using coding::be16;
using coding::be32;

bool isApplicationPrefix(const std::string& p) {
    return p == "MPO" || p == "MPK" || p == "MPM";
}
// "BL" can never equal a three-character prefix, so a bootloader that calls
// itself "BL " is not found; tools that read these texts rely on that.
bool isBootloaderPrefix(const std::string& p) {
    return p == "BOT" || p == "BL";
}

const FeatureRegistrar registrar(Feature0003FirmwareInfo::kId,
                                 &makeFeature<Feature0003FirmwareInfo>);
std::atomic<bool> included{false};
}  // namespace

IFeatureForceInclusion0003::IFeatureForceInclusion0003() {
    noteFeatureIncluded(included, "Feature0003FirmwareInfo",
                        "devio::IFeatureForceInclusion0003::IFeatureForceInclusion0003",
                        "Devio: Feature0003 included");
}

Feature0003FirmwareInfo::Feature0003FirmwareInfo(Byte featureIndex,
                                                 const std::shared_ptr<IDevice>& owner)
    : Feature(kId, featureIndex, owner) {}

std::uint16_t Feature0003FirmwareInfo::normaliseBcd(std::uint16_t value) {
    bool isBcd = true;
    for (int shift = 0; shift < 16; shift += 4) isBcd = isBcd && ((value >> shift) & 0xF) <= 9;
    if (isBcd) return value;
    unsigned binary = value > 9999 ? 9999u : value;
    unsigned bcd = 0;
    for (int shift = 0; shift < 16; shift += 4) {
        bcd |= (binary % 10) << shift;
        binary /= 10;
    }
    return static_cast<std::uint16_t>(bcd);
}

std::string Feature0003FirmwareInfo::hex4(std::uint16_t value) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text(4, '0');
    for (int i = 0; i < 4; ++i)
        text[static_cast<std::size_t>(i)] = digits[(value >> (12 - 4 * i)) & 0xF];
    return text;
}

bool Feature0003FirmwareInfo::GetEntityCount(std::uint32_t* count, std::uint32_t* unitId,
                                             std::uint32_t* transport, std::uint32_t* pid1,
                                             std::uint32_t* pid2, std::uint32_t* pid3,
                                             std::uint32_t* extendedModelId, bool cached) {
    std::vector<Byte> a;
    if (!sendSynchronousFeatureCommand(kGetEntityCount, {}, a, cached ? 1 : 0)) return false;
    if (a.empty()) {
        set_error(CommandResponseTooShort);
        return false;
    }
    // Fields past the end of a short answer read as 0.
    const std::uint32_t n = a[0];
    const std::uint32_t unit = be32(a, 1);
    const std::uint32_t tr = be16(a, 5);
    const std::uint32_t p1 = be16(a, 7);
    const std::uint32_t p2 = be16(a, 9);
    const std::uint32_t p3 = be16(a, 11);
    const std::uint32_t ext = vxp::byte_at(a, 13);
    if (count != nullptr) *count = n;
    if (unitId != nullptr) *unitId = unit;
    if (transport != nullptr) *transport = tr;
    if (pid1 != nullptr) *pid1 = p1;
    if (pid2 != nullptr) *pid2 = p2;
    if (pid3 != nullptr) *pid3 = p3;
    if (extendedModelId != nullptr) *extendedModelId = ext;
    DEVIO_LOG("Feature0003FirmwareInfo", 2, "GetEntityCount",
              "Feature0003FirmwareInfo::GetEntityCount(*count = %d, *unitId = 0x%08x, "
              "*transport = 0x%04x, pid1 = 0x%04x, pid2 = 0x%04x, pid3 = 0x%04x, "
              "extendedModelId = %d)",
              n, unit, tr, p1, p2, p3, ext);
    return true;
}

bool Feature0003FirmwareInfo::GetFwInfo(unsigned entity, std::uint32_t* fwType, std::string* prefix,
                                        std::uint16_t* bcdVersion, std::uint16_t* bcdBuild,
                                        std::uint32_t* rdnf, std::vector<Byte>* extraData,
                                        bool cached) {
    std::vector<Byte> a;
    if (!sendSynchronousFeatureCommand(kGetFwInfo, {static_cast<Byte>(entity)}, a, cached ? 1 : 0))
        return false;
    if (a.size() < kFwInfoSize) {
        set_error(CommandResponseTooShort);
        return false;
    }
    const std::uint32_t type = a[0] & 0x0F;
    std::string text(kPrefixSize, ' ');
    for (std::size_t i = 0; i < kPrefixSize; ++i) {
        if (std::isprint(a[1 + i]) != 0) text[i] = static_cast<char>(a[1 + i]);
    }
    const std::uint16_t ver = be16(a, 4);
    const std::uint16_t bld = be16(a, 6);
    const std::uint32_t flags = a[8];
    if (fwType != nullptr) *fwType = type;
    if (prefix != nullptr) *prefix = text;
    if (bcdVersion != nullptr) *bcdVersion = ver;
    if (bcdBuild != nullptr) *bcdBuild = bld;
    if (rdnf != nullptr) *rdnf = flags;
    if (extraData != nullptr)
        extraData->assign(a.begin() + kExtraDataOffset, a.begin() + kFwInfoSize);
    DEVIO_LOG("Feature0003FirmwareInfo", 2, "GetFwInfo",
              "Feature0003FirmwareInfo::GetFwInfo(entity = %d, *fwType = %d, *prefix = %s, "
              "*bcdVersion = 0x%04x, *bcdBuild = 0x%04x, *rdnf = %d, *extra_data)",
              entity, type, text.c_str(), ver, bld, flags);
    return true;
}

bool Feature0003FirmwareInfo::GetFwInfo(unsigned entity, std::uint32_t* fwType, std::string* prefix,
                                        std::string* versionText, std::string* build,
                                        std::uint32_t* rdnf, std::vector<Byte>* extraData,
                                        bool cached) {
    std::uint32_t type = 0;
    std::string text;
    std::uint16_t ver = 0;
    std::uint16_t bld = 0;
    std::uint32_t flags = 0;
    const bool ok = GetFwInfo(entity, &type, &text, &ver, &bld, &flags, extraData, cached);
    const std::string verText = ok ? hex4(ver) : std::string();
    const std::string bldText = ok ? hex4(bld) : std::string();
    if (ok) {
        if (fwType != nullptr) *fwType = type;
        if (prefix != nullptr) *prefix = text;
        if (versionText != nullptr) *versionText = verText;
        if (build != nullptr) *build = bldText;
        if (rdnf != nullptr) *rdnf = flags;
    }
    DEVIO_LOG("Feature0003FirmwareInfo", 2, "GetFwInfo",
              "Feature0003FirmwareInfo::GetFwInfo(entity = %d, *fwType = %d, *prefix = %s, "
              "*version = %s, *build = %s, *rdnf = %d, *extra_data)",
              entity, type, text.c_str(), verText.c_str(), bldText.c_str(), flags);
    return ok;
}

bool Feature0003FirmwareInfo::GetFwInfoByType(std::uint32_t fwType, std::string* prefix,
                                              std::uint16_t* bcdVersion, std::uint16_t* bcdBuild,
                                              std::uint32_t* rdnf, std::vector<Byte>* extraData) {
    std::uint32_t count = 0;
    if (!GetEntityCount(&count, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, true))
        return false;
    for (unsigned entity = 0; entity < count; ++entity) {
        std::uint32_t type = 0;
        std::string text;
        std::uint16_t ver = 0;
        std::uint16_t bld = 0;
        std::uint32_t flags = 0;
        std::vector<Byte> extra;
        if (!GetFwInfo(entity, &type, &text, &ver, &bld, &flags, &extra, true)) return false;
        if (type != fwType) continue;
        if (prefix != nullptr) *prefix = text;
        if (bcdVersion != nullptr) *bcdVersion = ver;
        if (bcdBuild != nullptr) *bcdBuild = bld;
        if (rdnf != nullptr) *rdnf = flags;
        if (extraData != nullptr) *extraData = extra;
        return true;
    }
    return false;
}

template <class Choose>
bool Feature0003FirmwareInfo::dottedVersion(Choose choose, std::string& dotted, Entity& chosen) {
    std::uint32_t count = 0;
    if (!GetEntityCount(&count, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, true))
        return false;
    bool found = false;
    for (unsigned entity = 0; entity < count && !found; ++entity) {
        Entity e;
        if (!GetFwInfo(entity, &e.fwType, &e.prefix, &e.bcdVersion, &e.bcdBuild, &e.rdnf,
                       static_cast<std::vector<Byte>*>(nullptr), true))
            return false;
        e.bcdVersion = normaliseBcd(e.bcdVersion);
        e.bcdBuild = normaliseBcd(e.bcdBuild);
        if (choose(e)) {
            chosen = e;
            found = true;
        }
    }
    if (!found) return false;
    const std::string verText = hex4(chosen.bcdVersion);
    const std::string bldText = hex4(chosen.bcdBuild);
    std::string major = verText.substr(0, 2);
    const std::string minor = verText.substr(2, 2);
    // Prefixes "U" + digit + blank carry the version's hundreds digit.
    const std::string& p = chosen.prefix;
    if (p.size() == 3 && p[0] == 'U' && p[2] == ' ') {
        const bool digit = std::isdigit(static_cast<unsigned char>(p[1])) != 0;
        if (p[1] != ' ' && digit) major.insert(major.begin(), p[1]);
    }
    std::ostringstream out;
    out << std::atoi(major.c_str()) << "." << std::atoi(minor.c_str()) << "."
        << std::atoi(bldText.c_str());
    dotted = out.str();
    return true;
}

bool Feature0003FirmwareInfo::GetFwVersionByPrefix(unsigned kind, std::string* dotted,
                                                   std::uint16_t* bcdBuild,
                                                   std::uint16_t* bcdVersion, std::uint32_t* rdnf) {
    if (dotted == nullptr) return false;
    Entity chosen;
    const auto choose = [kind](const Entity& e) {
        if (kind == kApplicationKind) return isApplicationPrefix(e.prefix);
        if (kind == kBootloaderKind) return isBootloaderPrefix(e.prefix);
        return false;
    };
    if (!dottedVersion(choose, *dotted, chosen)) return false;
    if (bcdBuild != nullptr) *bcdBuild = chosen.bcdBuild;
    if (bcdVersion != nullptr) *bcdVersion = chosen.bcdVersion;
    if (rdnf != nullptr) *rdnf = chosen.rdnf;
    return true;
}

bool Feature0003FirmwareInfo::GetMainFwVersion(std::string* dotted) {
    if (dotted == nullptr) return false;
    Entity chosen;
    return dottedVersion([](const Entity& e) { return e.fwType == kMainFwType; }, *dotted, chosen);
}

bool Feature0003FirmwareInfo::GetModelId(std::uint32_t* model) {
    std::uint32_t transport = 0;
    std::uint32_t pid1 = 0;
    if (!GetEntityCount(nullptr, nullptr, &transport, &pid1, nullptr, nullptr, nullptr, true))
        return false;
    if (model == nullptr) return true;
    if (transport != 0) {
        *model = transport << 16 | pid1;
    } else {
        // Without a transport field the platform's product id names the model.
        auto dev = device();
        if (!dev) {
            set_error(DeviceRemoved);
            return false;
        }
        *model = static_cast<std::uint32_t>(dev->pid());
    }
    DEVIO_LOG("Feature0003FirmwareInfo", 2, "GetModelId",
              "Feature0003FirmwareInfo::GetModelId(*model = %x)", *model);
    return true;
}

bool Feature0003FirmwareInfo::GetExtendedModelId(std::uint32_t* extendedModelId, bool cached) {
    std::uint32_t ext = 0;
    if (!GetEntityCount(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &ext, cached))
        return false;
    if (extendedModelId != nullptr) *extendedModelId = ext;
    DEVIO_LOG("Feature0003FirmwareInfo", 2, "GetExtendedModelId",
              "Feature0003FirmwareInfo::GetExtendedModelId(*extendedModelId = %x)", ext);
    return true;
}

}  // namespace devio
