#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Base/Byte.h"

namespace devio {

// Feature 0x0003: what the device is and which firmware entities (main
// application, bootloader, ...) it carries, numbered from 0. Every
// out-parameter may be null, except the version strings of
// `GetFwVersionByPrefix` and `GetMainFwVersion`.
class IFeature0003FirmwareInfo {
public:
    virtual ~IFeature0003FirmwareInfo() = default;

    virtual bool GetEntityCount(std::uint32_t* count, std::uint32_t* unitId,
                                std::uint32_t* transport, std::uint32_t* pid1, std::uint32_t* pid2,
                                std::uint32_t* pid3, std::uint32_t* extendedModelId,
                                bool cached) = 0;
    // Version and build as four upper-case hexadecimal digits each, as the
    // device holds them. The two forms differ only in the pointer types of
    // version and build, so a null there needs a typed null pointer.
    virtual bool GetFwInfo(unsigned entity, std::uint32_t* fwType, std::string* prefix,
                           std::string* version, std::string* build, std::uint32_t* rdnf,
                           std::vector<Byte>* extraData, bool cached) = 0;
    virtual bool GetFwInfo(unsigned entity, std::uint32_t* fwType, std::string* prefix,
                           std::uint16_t* bcdVersion, std::uint16_t* bcdBuild, std::uint32_t* rdnf,
                           std::vector<Byte>* extraData, bool cached) = 0;
    // Dotted version text of the application (kind 0) or the bootloader
    // (kind 1), chosen by prefix; the BCD values are normalised.
    virtual bool GetFwVersionByPrefix(unsigned kind, std::string* version, std::uint16_t* bcdBuild,
                                      std::uint16_t* bcdVersion, std::uint32_t* rdnf) = 0;
    // Dotted version text of the first entity of type 0.
    virtual bool GetMainFwVersion(std::string* version) = 0;
    // The first entity of type `fwType`; false, with no error, if none.
    virtual bool GetFwInfoByType(std::uint32_t fwType, std::string* prefix,
                                 std::uint16_t* bcdVersion, std::uint16_t* bcdBuild,
                                 std::uint32_t* rdnf, std::vector<Byte>* extraData) = 0;
    virtual bool GetModelId(std::uint32_t* model) = 0;
    virtual bool GetExtendedModelId(std::uint32_t* extendedModelId, bool cached) = 0;
};

class IFeatureForceInclusion0003 {
public:
    IFeatureForceInclusion0003();
};
[[maybe_unused]] static const IFeatureForceInclusion0003 featureForceInclusion0003;

}  // namespace devio
