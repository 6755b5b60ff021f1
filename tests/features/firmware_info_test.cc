// Firmware information against simulated devices: the raw fields, the
// hexadecimal texts, and the dotted version texts with their BCD and prefix
// rules.

#include <gtest/gtest.h>

#include "FeatureBench.h"
#include "Features/Feature0003FirmwareInfo.h"

namespace devtest {
namespace {

using devio::IFeature0003FirmwareInfo;

// Entity 0: a bootloader whose type byte has junk in its high nibble.
// Entity 1: the running application, with a version that is not BCD.
// Entity 2: a prefix with bytes that are not printable.
// Entity 3: a bootloader that calls itself "BL ".
const char* const kEntities = R"("entities": [
    {"type": "0x51", "prefix": "BOT", "version": "0x0125", "build": "0x0043", "rdnf": 0},
    {"type": 0, "prefix": "MPM", "version": "0x1A00", "build": "0x00FF", "rdnf": 1,
     "extra": [1, 2, 3, 4, 5, 6, 7]},
    {"type": 2, "prefix": "\u0000A\u007f", "version": "0x0009", "build": "0xFFFF", "rdnf": 0},
    {"type": 3, "prefix": "BL ", "version": "0x0200", "build": "0x0001", "rdnf": 0}],
    "entity_info": {"unit_id": "0xDEADBEEF", "transport": "0x0403",
                    "pids": ["0xB012", "0x1234", "0x5678"], "extended_model_id": "0x2C"})";

TEST(FirmwareInfo, EntitiesAsFieldsAndAsTexts) {
    FeatureBench bench(deviceMachine(kEntities));
    auto fw = bench.load<IFeature0003FirmwareInfo>(0x0003);
    ASSERT_TRUE(fw);
    std::uint32_t count = 0, unit = 0, transport = 0, pid1 = 0, pid2 = 0, pid3 = 0, ext = 0;
    ASSERT_TRUE(fw->GetEntityCount(&count, &unit, &transport, &pid1, &pid2, &pid3, &ext, false));
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(unit, 0xDEADBEEFu);
    EXPECT_EQ(transport, 0x0403u);
    EXPECT_EQ(pid1, 0xB012u);
    EXPECT_EQ(pid2, 0x1234u);
    EXPECT_EQ(pid3, 0x5678u);
    EXPECT_EQ(ext, 0x2Cu);

    struct Expect {
        std::uint32_t type;
        const char* prefix;
        std::uint16_t version, build;
        const char *versionText, *buildText;
        std::uint32_t rdnf;
    };
    const Expect expect[] = {
        {1, "BOT", 0x0125, 0x0043, "0125", "0043", 0},
        {0, "MPM", 0x1A00, 0x00FF, "1A00", "00FF", 1},
        {2, " A ", 0x0009, 0xFFFF, "0009", "FFFF", 0},
        {3, "BL ", 0x0200, 0x0001, "0200", "0001", 0},
    };
    for (unsigned entity = 0; entity < 4; ++entity) {
        SCOPED_TRACE(entity);
        const Expect& e = expect[entity];
        std::uint32_t type = 99, rdnf = 99;
        std::string prefix;
        std::uint16_t version = 0, build = 0;
        std::vector<devio::Byte> extra;
        ASSERT_TRUE(fw->GetFwInfo(entity, &type, &prefix, &version, &build, &rdnf, &extra, false));
        EXPECT_EQ(type, e.type);
        EXPECT_EQ(prefix, e.prefix);
        EXPECT_EQ(version, e.version) << "the BCD form is not normalised";
        EXPECT_EQ(build, e.build);
        EXPECT_EQ(rdnf, e.rdnf);
        EXPECT_EQ(extra.size(), 7u);
        const Bytes wire = bench.rig.rec.sent().back();
        EXPECT_EQ(wire[3], 0x10 | bench.rig.dev->swid());
        EXPECT_EQ(wire[4], entity);

        std::string versionText, buildText;
        ASSERT_TRUE(fw->GetFwInfo(entity, nullptr, nullptr, &versionText, &buildText, nullptr,
                                  static_cast<std::vector<devio::Byte>*>(nullptr), false));
        EXPECT_EQ(versionText, e.versionText);
        EXPECT_EQ(buildText, e.buildText);
    }
    std::vector<devio::Byte> extra;
    ASSERT_TRUE(fw->GetFwInfo(1, nullptr, nullptr, static_cast<std::uint16_t*>(nullptr), nullptr,
                              nullptr, &extra, false));
    EXPECT_EQ(extra, (std::vector<devio::Byte>{1, 2, 3, 4, 5, 6, 7}));

    // An entity the device does not have: its error report, unchanged.
    std::string text;
    EXPECT_FALSE(fw->GetFwInfo(9, nullptr, nullptr, &text, nullptr, nullptr, nullptr, false));
    EXPECT_EQ(devio::error_record().err, devio::Vxp20Error2);

    // By type: entity 0's type is 1 once its high nibble is dropped.
    std::string prefix;
    ASSERT_TRUE(fw->GetFwInfoByType(1, &prefix, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(prefix, "BOT");
    ASSERT_TRUE(fw->GetFwInfoByType(3, &prefix, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(prefix, "BL ");
    devio::set_error(devio::Success);
    EXPECT_FALSE(fw->GetFwInfoByType(5, &prefix, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(devio::error_record().err, devio::Success) << "no match is not an error";

    // Model ids: transport and first pid.
    std::uint32_t model = 0;
    ASSERT_TRUE(fw->GetModelId(&model));
    EXPECT_EQ(model, 0x0403B012u);
    ASSERT_TRUE(fw->GetExtendedModelId(&model, false));
    EXPECT_EQ(model, 0x2Cu);

    // Version texts by prefix. The application: 0x1A00 is binary 6656, build
    // 0x00FF is 255.
    std::uint16_t bcdBuild = 0, bcdVersion = 0;
    std::uint32_t rdnf = 0;
    ASSERT_TRUE(fw->GetFwVersionByPrefix(0, &text, &bcdBuild, &bcdVersion, &rdnf));
    EXPECT_EQ(text, "66.56.255");
    EXPECT_EQ(bcdVersion, 0x6656);
    EXPECT_EQ(bcdBuild, 0x0255);
    EXPECT_EQ(rdnf, 1u);
    ASSERT_TRUE(fw->GetMainFwVersion(&text));
    EXPECT_EQ(text, "66.56.255");
    // The bootloader "BOT"; the one named "BL " is never chosen, even when
    // it is the only one.
    ASSERT_TRUE(fw->GetFwVersionByPrefix(1, &text, nullptr, nullptr, nullptr));
    EXPECT_EQ(text, "1.25.43");
    EXPECT_FALSE(fw->GetFwVersionByPrefix(2, &text, nullptr, nullptr, nullptr));
    EXPECT_FALSE(fw->GetFwVersionByPrefix(0, nullptr, nullptr, nullptr, nullptr));
    EXPECT_FALSE(fw->GetMainFwVersion(nullptr));

    // A device with only a "BL " bootloader, and without a transport field:
    // the platform's product id is then the model id.
    FeatureBench onlyBl(
        deviceMachine(R"("entities": [{"type": 1, "prefix": "BL ", "version": "0x0100"}],
                         "entity_info": {"transport": 0, "pids": ["0xB012"]})"));
    auto blOnly = onlyBl.load<IFeature0003FirmwareInfo>(0x0003);
    ASSERT_TRUE(blOnly);
    devio::set_error(devio::Success);
    EXPECT_FALSE(blOnly->GetFwVersionByPrefix(1, &text, nullptr, nullptr, nullptr));
    EXPECT_FALSE(blOnly->GetMainFwVersion(&text)) << "no entity of type 0";
    EXPECT_EQ(devio::error_record().err, devio::Success);
    ASSERT_TRUE(blOnly->GetModelId(&model));
    EXPECT_EQ(model, 0xC08Bu);
    EXPECT_TRUE(blOnly->GetModelId(nullptr));
}

// The main version's prefix may carry a hundreds digit of the major number.
TEST(FirmwareInfo, MainVersionPrefixRule) {
    struct Case {
        const char* prefix;
        const char* version;
        const char* build;
        const char* text;
    };
    const Case cases[] = {
        {"U1 ", "0x2305", "0x0000", "123.5.0"}, {"U  ", "0x2305", "0x0010", "23.5.10"},
        {"UX ", "0x2305", "0x0007", "23.5.7"},  {"U1X", "0x2305", "0x0007", "23.5.7"},
        {"MPM", "0x0125", "0x0043", "1.25.43"}, {"MPK", "0xFFFF", "0x0A0B", "99.99.2571"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.prefix);
        FeatureBench bench(deviceMachine(std::string(R"("entities": [{"type": 0, "prefix": ")") +
                                         c.prefix + R"(", "version": ")" + c.version +
                                         R"(", "build": ")" + c.build + R"("}])"));
        auto fw = bench.load<IFeature0003FirmwareInfo>(0x0003);
        ASSERT_TRUE(fw);
        std::string text;
        ASSERT_TRUE(fw->GetMainFwVersion(&text));
        EXPECT_EQ(text, c.text);
    }
}

// The edges of the rule; the texts above show it on a device.
TEST(FirmwareInfo, BcdNormalisation) {
    using F = devio::Feature0003FirmwareInfo;
    EXPECT_EQ(F::normaliseBcd(0x0009), 0x0009);
    EXPECT_EQ(F::normaliseBcd(0x9999), 0x9999);
    EXPECT_EQ(F::normaliseBcd(0x270F), 0x9999) << "9999 itself";
    EXPECT_EQ(F::normaliseBcd(0x2710), 0x2710) << "BCD digits, whatever their binary value";
    EXPECT_EQ(F::normaliseBcd(0x271A), 0x9999) << "10010 clamps";
    EXPECT_EQ(F::normaliseBcd(0x000A), 0x0010);
}

}  // namespace
}  // namespace devtest
