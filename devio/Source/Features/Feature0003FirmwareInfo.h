#pragma once

#include "Features/Feature.h"
#include "Features/IFeature0003FirmwareInfo.h"

namespace devio {

// Firmware information. The version texts that it builds from the BCD
// fields are meant for people and inventories; the firmware check compares
// the raw hexadecimal texts of the string form of `GetFwInfo`.
class Feature0003FirmwareInfo : public Feature, public IFeature0003FirmwareInfo {
public:
    static constexpr std::uint32_t kId = 0x0003;

    Feature0003FirmwareInfo(Byte index, const std::shared_ptr<IDevice>& device);

    bool GetEntityCount(std::uint32_t* count, std::uint32_t* unitId, std::uint32_t* transport,
                        std::uint32_t* pid1, std::uint32_t* pid2, std::uint32_t* pid3,
                        std::uint32_t* extendedModelId, bool cached) override;
    bool GetFwInfo(unsigned entity, std::uint32_t* fwType, std::string* prefix,
                   std::string* version, std::string* build, std::uint32_t* rdnf,
                   std::vector<Byte>* extraData, bool cached) override;
    bool GetFwInfo(unsigned entity, std::uint32_t* fwType, std::string* prefix,
                   std::uint16_t* bcdVersion, std::uint16_t* bcdBuild, std::uint32_t* rdnf,
                   std::vector<Byte>* extraData, bool cached) override;
    bool GetFwVersionByPrefix(unsigned kind, std::string* version, std::uint16_t* bcdBuild,
                              std::uint16_t* bcdVersion, std::uint32_t* rdnf) override;
    bool GetMainFwVersion(std::string* version) override;
    bool GetFwInfoByType(std::uint32_t fwType, std::string* prefix, std::uint16_t* bcdVersion,
                         std::uint16_t* bcdBuild, std::uint32_t* rdnf,
                         std::vector<Byte>* extraData) override;
    bool GetModelId(std::uint32_t* model) override;
    bool GetExtendedModelId(std::uint32_t* extendedModelId, bool cached) override;

    // A 16-bit value as four BCD digits: unchanged if it already is BCD,
    // otherwise read as binary, clamped to 9999 and converted.
    static std::uint16_t normaliseBcd(std::uint16_t value);
    // Four upper-case hexadecimal digits, most significant first.
    static std::string hex4(std::uint16_t value);

private:
    // One entity, as the version texts need it.
    struct Entity {
        std::uint32_t fwType = 0;
        std::string prefix;
        std::uint16_t bcdVersion = 0;  // normalised
        std::uint16_t bcdBuild = 0;    // normalised
        std::uint32_t rdnf = 0;
    };
    template <class Choose>
    bool dottedVersion(Choose choose, std::string& version, Entity& chosen);
};

}  // namespace devio
