// Feature discovery and the firmware check against simulated devices,
// through the real binding: what is asked of the device at a first and at
// a second start, and what a reflashed device does to what we knew.

#include <gtest/gtest.h>

#include <map>

#include "Base/ErrorRecord.h"
#include "Features/IFeature0000Root.h"
#include "Features/IFeature0001FeatureSet.h"
#include "Features/IFeature0003FirmwareInfo.h"
#include "Session.h"

namespace loadtest {
namespace {

struct Listed {
    unsigned id, version;
    bool obsolete, hidden, engineering;
};
// The feature table of kDozenFeatures, by index.
const std::map<unsigned, Listed> kTable = {
    {1, {0x0001, 0, false, false, false}}, {2, {0x0003, 2, false, false, false}},
    {3, {0x0005, 1, false, false, false}}, {4, {0x0007, 0, false, false, false}},
    {5, {0x0020, 0, false, false, false}}, {6, {0x1000, 1, false, true, false}},
    {7, {0x1D4B, 0, false, false, false}}, {8, {0x1F1F, 0, true, false, false}},
    {9, {0x1814, 3, false, false, true}},  {10, {0x2100, 1, false, false, false}},
    {11, {0x2201, 0, false, true, true}},  {12, {0x1B04, 5, true, true, false}},
};
constexpr std::uint8_t kFirmwareInfoIndex = 2;
const char* const kDozenFirmware = "0MPM120300411234ABCD";

void expect_whole_table(devio::Device& dev) {
    const auto all = dev.features();
    ASSERT_EQ(all.size(), kTable.size() + 1) << "the root and a dozen features";
    EXPECT_EQ(all[0]->featureId(), 0u);
    EXPECT_EQ(all[0]->featureIndex(), 0u);
    EXPECT_NE(dynamic_cast<devio::IFeature0000Root*>(all[0].get()), nullptr);
    for (std::size_t i = 1; i < all.size(); ++i) {
        const auto& f = all[i];
        const Listed& want = kTable.at(f->featureIndex());
        SCOPED_TRACE("index " + std::to_string(f->featureIndex()));
        EXPECT_EQ(f->featureIndex(), i);
        EXPECT_EQ(f->featureId(), want.id);
        EXPECT_EQ(f->featureVersion(), want.version);
        EXPECT_EQ(f->isObsolete(), want.obsolete);
        EXPECT_EQ(f->isHidden(), want.hidden);
        EXPECT_EQ(f->isEngineeringHidden(), want.engineering);
        EXPECT_EQ(f->device().get(), &dev);
    }
    EXPECT_NE(dynamic_cast<devio::IFeature0001FeatureSet*>(all[1].get()), nullptr);
    EXPECT_NE(dynamic_cast<devio::IFeature0003FirmwareInfo*>(all[2].get()), nullptr);
}

// The commands among `sent`, without pings, as (feature index, function).
std::vector<std::pair<int, int>> commands_of(const std::vector<Bytes>& sent) {
    std::vector<std::pair<int, int>> out;
    for (const Bytes& r : sent) out.push_back({r.at(2), r.at(3) >> 4});
    return out;
}

TEST(Loading, ColdDiscoveryThenWarmStartAsksOnlyPingAndFirmwareCheck) {
    Session s;
    devio::Device& cold = s.start();
    expect_whole_table(cold);
    EXPECT_EQ(cold.firmware_text(), kDozenFirmware);
    const auto cold_sent = s.sent();
    // Version, ping, 0x0003 lookup, entity count and info twice, 0x0001
    // lookup, count, and the ids of indices 2 to 12.
    EXPECT_EQ(cold_sent.size(), 20u);
    s.stop();
    ASSERT_FALSE(read_file(s.cache_file()).empty()) << "a dirty cache is written at the end";

    devio::Device& warm = s.start();
    expect_whole_table(warm);
    EXPECT_EQ(warm.firmware_text(), kDozenFirmware);
    const auto sent = s.sent();
    ASSERT_EQ(sent.size(), 3u) << "the ping and the firmware check, nothing else";
    EXPECT_EQ(sent[0][2], 0x00);
    EXPECT_EQ(sent[0][3] >> 4, 1) << "root function 1 is the ping";
    EXPECT_EQ(sent[1][2], kFirmwareInfoIndex);
    EXPECT_EQ(sent[1][3] >> 4, 0) << "entity count";
    EXPECT_EQ(sent[2][2], kFirmwareInfoIndex);
    EXPECT_EQ(sent[2][3] >> 4, 1) << "firmware info";
    EXPECT_EQ(sent[2][4], 0) << "of the entity that runs";
    EXPECT_TRUE(s.rec.failures().empty());
}

// The firmware text of each kind of device is stable, so the check matches;
// the check asks straight for the entity that ran at loading (-1: no check).
TEST(Loading, FirmwareTextForEachKindOfDevice) {
    struct Case {
        const char* name;
        const char* features;
        const char* entities;
        const char* want;
        int checked_entity;
    };
    const Case cases[] = {
        {"running entity found", R"(["0x0001", {"id": "0x0003", "version": 2}])",
         R"([{"type": 0, "prefix": "MPM", "version": "0x0125", "build": "0x0043", "rdnf": 1}])",
         "0MPM01250043A1", 0},
        {"the bootloader runs", R"(["0x0001", {"id": "0x0003", "version": 1}])",
         R"([{"type": 0, "prefix": "MPM", "version": "0x1203", "rdnf": 0},
             {"type": 1, "prefix": "BOT", "version": "0x0102", "build": "0x0007", "rdnf": 1}])",
         "1BOT01020007A1", 1},
        {"no entity runs: entity 0 without unit", R"(["0x0001", {"id": "0x0003", "version": 2}])",
         R"([{"type": 2, "prefix": "MPK", "version": "0x0125", "rdnf": 0},
             {"type": 1, "prefix": "BOT", "version": "0x0300", "rdnf": 0}])",
         "2MPK01250000", -1},
        {"version 0: entity 0 without unit", R"(["0x0001", "0x0003"])",
         R"([{"type": 1, "prefix": "BOT", "version": "0x0300", "rdnf": 0},
             {"type": 0, "prefix": "MPM", "version": "0x0400", "rdnf": 1}])",
         "1BOT03000000", -1},
        {"no firmware info, and a table of one", R"(["0x0001"])", "[{}]", "NotPresent", -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string machine =
            std::string(R"({"devices": [{"id": "mouse", "name": "M", "pid": "0xC08B",
            "entity_info": {"unit_id": "0xA1"}, "features": )") +
            c.features + R"(, "entities": )" + c.entities + "}]}";
        Session s(machine.c_str());
        devio::Device& dev = s.start(false);
        ASSERT_TRUE(dev.load_features());
        EXPECT_EQ(dev.firmware_text(), c.want);
        s.rec.clear();
        EXPECT_TRUE(dev.do_fwcheck());
        EXPECT_EQ(dev.firmware_text(), c.want);
        if (c.checked_entity >= 0) {
            const auto sent = s.sent();
            ASSERT_EQ(commands_of(sent), (std::vector<std::pair<int, int>>{{2, 0}, {2, 1}}));
            EXPECT_EQ(sent[1][4], c.checked_entity);
        }
        if (std::string(c.want) == "NotPresent") {
            EXPECT_EQ(dev.features().size(), 2u) << "root and feature set; no walk";
        }
    }
}

// Before the walk a feature is looked up at the root, and the object made
// then is the one the walk keeps; after it, an absent id costs nothing.
TEST(Loading, LookupsBeforeAndAfterTheWalk) {
    Session s;
    devio::Device& dev = s.start(false);
    ASSERT_TRUE(dev.load_feature_root(false));
    s.rec.clear();
    EXPECT_EQ(dev.feature_by_id(0x4321), nullptr);
    EXPECT_EQ(devio::error_record().err, devio::NotPresent);
    EXPECT_EQ(commands_of(s.sent()), (std::vector<std::pair<int, int>>{{0, 0}}));
    auto name = dev.feature_by_id(0x0005);
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(name->featureIndex(), 3u);
    EXPECT_EQ(name->featureVersion(), 1u);

    ASSERT_TRUE(dev.load_features());
    EXPECT_EQ(dev.features().at(3), name) << "a host may hold and watch it";
    s.rec.clear();
    devio::set_error(devio::Success);
    EXPECT_EQ(dev.feature_by_id(0x4322), nullptr);
    EXPECT_EQ(devio::error_record().err, devio::NotPresent);
    EXPECT_EQ(dev.feature_by_id(0x1814), dev.features().at(9));
    EXPECT_TRUE(s.sent().empty()) << "the whole table is known";
}

TEST(Loading, Vxp10DeviceIsNotVxp20UntilRetried) {
    Session s(R"({"devices": [{"id": "mouse", "name": "Old Mouse", "pid": "0xC08B",
        "vxp": "1.0"}]})");
    devio::Device& dev = s.start(false);
    EXPECT_FALSE(dev.load_feature_root(false));
    EXPECT_EQ(devio::error_record().err, devio::NotVxp20);
    EXPECT_EQ(s.sent().size(), 1u);
    EXPECT_TRUE(dev.features().empty());
    EXPECT_EQ(dev.feature_by_id(0x0003), nullptr);
    EXPECT_EQ(devio::error_record().err, devio::NotVxp20);
    EXPECT_EQ(s.sent().size(), 1u) << "the answer sticks";

    EXPECT_FALSE(dev.retry_load_feature_root());
    EXPECT_EQ(devio::error_record().err, devio::NotVxp20);
    EXPECT_EQ(s.sent().size(), 2u) << "a retry asks again";
}

TEST(Loading, OtherFailureOfTheRootIsAskedAgain) {
    Session s;
    devio::Device& dev = s.start(false);
    s.sim("fault mouse error 2 5 1");
    EXPECT_FALSE(dev.load_feature_root(false));
    EXPECT_EQ(devio::error_record().err, devio::Vxp20Error5);
    EXPECT_TRUE(dev.load_feature_root(false)) << "not sticky: the next call asks again";
    EXPECT_EQ(dev.firmware_text(), kDozenFirmware);
}

}  // namespace
}  // namespace loadtest
