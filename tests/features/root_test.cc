// The root against a simulated device: what the device's feature table says
// must come out of the typed calls, the right bytes must go on the wire, and
// only constant queries may come from the cache. (The feature set's records
// are read end to end by feature loading, whose tests check every flag.)

#include <gtest/gtest.h>

#include "FeatureBench.h"
#include "Features/Feature0000Root.h"

namespace devtest {
namespace {

struct TableEntry {
    unsigned id, version;
    bool obsolete, hidden, engineering;
};
// A dozen features with every combination of flags that matters.
const TableEntry kTable[] = {
    {0x0001, 1, false, false, false}, {0x0003, 2, false, false, false},
    {0x0005, 0, false, false, false}, {0x0007, 1, false, true, false},
    {0x0020, 0, false, false, false}, {0x1000, 3, false, false, false},
    {0x1D4B, 2, true, true, false},   {0x1F1F, 0, false, false, true},
    {0x00C2, 5, true, false, true},   {0x2201, 0, false, false, false},
    {0x1B04, 4, false, false, false}, {0x4521, 255, false, true, true},
};

std::string tableMachine() {
    std::string features;
    for (const TableEntry& e : kTable) {
        if (!features.empty()) features += ", ";
        features += "{\"id\": " + std::to_string(e.id) +
                    ", \"version\": " + std::to_string(e.version) +
                    ", \"obsolete\": " + (e.obsolete ? "true" : "false") +
                    ", \"hidden\": " + (e.hidden ? "true" : "false") +
                    ", \"engineering\": " + (e.engineering ? "true" : "false") + "}";
    }
    return deviceMachine("\"protocol\": 4, \"target_sw\": 7, \"features\": [" + features + "]");
}

TEST(Root, GetFeatureReportsTheTableAndAbsentIdsAsIndexZero) {
    FeatureBench bench(tableMachine());
    ASSERT_TRUE(bench.root);
    for (std::size_t i = 0; i < std::size(kTable); ++i) {
        const TableEntry& e = kTable[i];
        SCOPED_TRACE(e.id);
        unsigned index = 99, version = 99;
        bool obsolete = true, hidden = true, engineering = true;
        ASSERT_TRUE(bench.root->GetFeature(e.id, &index, &obsolete, &hidden, &engineering, &version,
                                           false));
        EXPECT_EQ(index, i + 1);
        EXPECT_EQ(version, e.version);
        EXPECT_EQ(obsolete, e.obsolete);
        EXPECT_EQ(hidden, e.hidden);
        EXPECT_EQ(engineering, e.engineering);
    }
    // The request carries the id big-endian in the first two parameters.
    // (This device has only long reports: the hardware layer sends the
    // short command as one.)
    const Bytes last = bench.rig.rec.sent().back();
    EXPECT_EQ(last[2], 0x00);
    EXPECT_EQ(last[3], 0x00 | bench.rig.dev->swid());
    EXPECT_EQ(last[4], 0x45);
    EXPECT_EQ(last[5], 0x21);

    unsigned index = 99;
    ASSERT_TRUE(bench.root->GetFeature(0x1D4C, &index, nullptr, nullptr, nullptr, nullptr, false));
    EXPECT_EQ(index, 0u);
    // With every out-parameter null the command still goes out.
    bench.sentSinceLastLook();
    ASSERT_TRUE(bench.root->GetFeature(0x0001, nullptr, nullptr, nullptr, nullptr, nullptr, false));
    EXPECT_EQ(bench.sentSinceLastLook(), 1u);
}

TEST(Root, ProtocolVersionTargetSwAndPing) {
    FeatureBench bench(tableMachine());
    unsigned protocol = 0, targetsw = 0, echo = 0;
    ASSERT_TRUE(bench.root->GetProtocolVersion(0x5A, &protocol, &targetsw, &echo));
    EXPECT_EQ(protocol, 4u);
    EXPECT_EQ(targetsw, 7u);
    EXPECT_EQ(echo, 0x5Au);
    const Bytes wire = bench.rig.rec.sent().back();
    EXPECT_EQ(wire[3], 0x10 | bench.rig.dev->swid()) << "function 1";
    EXPECT_EQ(wire[6], 0x5A);

    // Ping data makes a request that the cache must never answer; without
    // it the request is constant.
    bench.sentSinceLastLook();
    ASSERT_TRUE(bench.root->GetProtocolVersion(0x5A, nullptr, nullptr, nullptr));
    EXPECT_EQ(bench.sentSinceLastLook(), 1u);
    ASSERT_TRUE(bench.root->GetProtocolVersion(0, nullptr, nullptr, nullptr));
    EXPECT_EQ(bench.sentSinceLastLook(), 1u);
    ASSERT_TRUE(bench.root->GetProtocolVersion(0, &protocol, &targetsw, &echo));
    EXPECT_EQ(bench.sentSinceLastLook(), 0u) << "second constant query comes from the cache";
    EXPECT_EQ(protocol, 4u);
    EXPECT_EQ(targetsw, 7u);
    EXPECT_EQ(echo, 0u);

    // Ping: the echo comes back; the wire carries function 1 and the data.
    for (devio::Byte data : {devio::Byte{0x00}, devio::Byte{0x11}, devio::Byte{0xFF}}) {
        ASSERT_TRUE(bench.root->Ping(data));
        const Bytes ping = bench.rig.rec.sent().back();
        EXPECT_EQ(ping[2], 0x00);
        EXPECT_EQ(ping[3], 0x10 | bench.rig.dev->swid());
        EXPECT_EQ(ping[6], data);
    }
}

// A failed reading leaves the version unread, so the next call asks again; a
// success is kept. A VXP 1.0 device answers the version query with its own
// error report every time.
TEST(Root, TargetSwIsAskedAgainAfterAFailureAndKeptAfterASuccess) {
    FeatureBench old(deviceMachine("\"vxp\": \"1.0\""));
    old.sentSinceLastLook();
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        devio::set_error(devio::Success);
        unsigned protocol = 77;
        EXPECT_FALSE(old.root->TargetSw(&protocol, nullptr));
        EXPECT_EQ(devio::error_record().err, devio::Vxp10Error1);
        EXPECT_EQ(protocol, 77u) << "nothing written on failure";
        EXPECT_EQ(old.sentSinceLastLook(), 1u);
    }

    FeatureBench bench(tableMachine());
    bench.rig.sim("fault mouse error 2 5 1");
    bench.sentSinceLastLook();
    unsigned protocol = 0, targetsw = 0;
    EXPECT_FALSE(bench.root->TargetSw(&protocol, &targetsw));
    EXPECT_EQ(devio::error_record().err, devio::Vxp20Error5);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(bench.root->TargetSw(&protocol, &targetsw));
        EXPECT_EQ(protocol, 4u);
        EXPECT_EQ(targetsw, 7u);
    }
    EXPECT_EQ(bench.sentSinceLastLook(), 2u) << "the failed question and one more";
}

}  // namespace
}  // namespace devtest
