// Device names against a simulated device: the marketing name at every edge
// of its 16-byte chunks, and the friendly name written and read back at
// every edge of its 15-byte chunks, with the UTF-8 cut at the length limit.

#include <gtest/gtest.h>

#include <cstdio>

#include "FeatureBench.h"
#include "Features/IFeature0005DeviceNameType.h"
#include "Features/IFeature0007DeviceFriendlyName.h"

namespace devtest {
namespace {

using devio::IFeature0005DeviceNameType;
using devio::IFeature0007DeviceFriendlyName;

// Characters that differ from those 15 and 16 places away, so that a chunk
// read or written at the wrong offset shows.
std::string nameOf(std::size_t length) {
    std::string s;
    for (std::size_t i = 0; i < length; ++i) s += static_cast<char>('A' + i % 23);
    return s;
}

// `text` as a JSON string; bytes outside printable ASCII are escaped.
std::string jsonText(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto b = static_cast<unsigned char>(c);
        if (b < 0x20 || b >= 0x7F || c == '"' || c == '\\') {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", b);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

// The last `n` reports sent.
std::vector<Bytes> lastSent(FeatureBench& bench, std::size_t n) {
    const auto sent = bench.rig.rec.sent();
    return std::vector<Bytes>(sent.end() - static_cast<std::ptrdiff_t>(n), sent.end());
}

TEST(DeviceName, EveryChunkBoundaryAndTheSecondReading) {
    std::string zeroLed = nameOf(20);
    zeroLed[16] = '\0';
    const std::pair<const char*, std::string> cases[] = {
        {"empty", ""},
        {"one", nameOf(1)},
        {"15", nameOf(15)},
        {"one chunk", nameOf(16)},
        {"17", nameOf(17)},
        {"two chunks", nameOf(32)},
        {"longest", nameOf(255)},
        {"chunk led by a zero byte", zeroLed},
    };
    for (const auto& [what, expect] : cases) {
        SCOPED_TRACE(what);
        FeatureBench bench(deviceMachine("\"marketing_name\": " + jsonText(expect)));
        auto names = bench.load<IFeature0005DeviceNameType>(0x0005);
        ASSERT_TRUE(names);
        bench.sentSinceLastLook();
        std::string name = "old";
        ASSERT_TRUE(names->GetDeviceName(&name));
        EXPECT_EQ(name, expect);
        // The count, then one chunk per 16 characters at offsets 0, 16, ...
        const std::size_t chunks = (expect.size() + 15) / 16;
        ASSERT_EQ(bench.sentSinceLastLook(), 1 + chunks);
        const auto sent = lastSent(bench, chunks);
        for (std::size_t i = 0; i < chunks; ++i) {
            EXPECT_EQ(sent[i][3] >> 4, 1);
            EXPECT_EQ(sent[i][4], 16 * i);
        }
        name.clear();
        ASSERT_TRUE(names->GetDeviceName(&name));
        EXPECT_EQ(name, expect);
        EXPECT_EQ(bench.sentSinceLastLook(), 0u) << "a second reading costs no traffic";
    }

    FeatureBench bench(deviceMachine(R"("device_type": 200)"));
    auto names = bench.load<IFeature0005DeviceNameType>(0x0005);
    ASSERT_TRUE(names);
    devio::Byte narrow = 0;
    std::uint32_t wide = 0;
    ASSERT_TRUE(names->GetDeviceType(&narrow));
    ASSERT_TRUE(names->GetDeviceType(&wide));
    EXPECT_EQ(narrow, 200);
    EXPECT_EQ(wide, 200u);
    EXPECT_TRUE(names->GetDeviceType(static_cast<devio::Byte*>(nullptr)));
    bench.sentSinceLastLook();
    EXPECT_FALSE(names->GetDeviceType(static_cast<std::uint32_t*>(nullptr)));
    EXPECT_EQ(devio::error_record().err, devio::InternalError);
    EXPECT_EQ(bench.sentSinceLastLook(), 0u);
}

TEST(FriendlyName, WrittenAndReadBackAtEveryChunkBoundary) {
    // The device claims 21 bytes, but its second chunk begins with a zero.
    const std::string claimed = nameOf(15) + std::string(1, '\0') + "abcde";
    FeatureBench bench(deviceMachine(R"("friendly_name": {"name": )" + jsonText(claimed) +
                                     R"(, "default": "Factory Name", "max_len": 31})"));
    auto friendly = bench.load<IFeature0007DeviceFriendlyName>(0x0007);
    ASSERT_TRUE(friendly);
    std::uint16_t nameLen = 0, nameMaxLen = 0, defaultNameLen = 0;
    ASSERT_TRUE(friendly->GetFriendlyNameLen(&nameLen, &nameMaxLen, &defaultNameLen));
    EXPECT_EQ(nameLen, 21);
    EXPECT_EQ(nameMaxLen, 31);
    EXPECT_EQ(defaultNameLen, 12);
    std::string name;
    bench.sentSinceLastLook();
    ASSERT_TRUE(friendly->GetFriendlyName(&name));
    EXPECT_EQ(name, nameOf(15)) << "ends without failure at the zero-led chunk";
    EXPECT_EQ(bench.sentSinceLastLook(), 3u);
    const std::string factory = std::string("Factory Name") + std::string(3, '\0');
    ASSERT_TRUE(friendly->GetDefaultFriendlyName(&name));
    EXPECT_EQ(name, factory) << "the last chunk stays whole";

    const std::string euro = "\xE2\x82\xAC";
    struct Case {
        const char* what;
        std::string written;
        std::size_t bytesSent;
    };
    const Case cases[] = {
        {"empty", "", 0},
        {"one", nameOf(1), 1},
        {"14", nameOf(14), 14},
        {"one chunk", nameOf(15), 15},
        {"16", nameOf(16), 16},
        {"two chunks", nameOf(30), 30},
        {"longest", nameOf(31), 31},
        {"cut to the longest", nameOf(40), 31},
        {"last character fits", nameOf(28) + euro, 31},
        {"last character would be cut", nameOf(29) + euro, 29},
        {"short and broken, not cut", "abc\xE2\x82", 5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        bench.sentSinceLastLook();
        ASSERT_TRUE(friendly->SetFriendlyName(c.written));
        // The lengths, then one chunk per 15 bytes, zero-padded.
        const std::size_t chunks = (c.bytesSent + 14) / 15;
        ASSERT_EQ(bench.sentSinceLastLook(), 1 + chunks);
        if (chunks == 0) continue;
        std::string expect = c.written.substr(0, c.bytesSent);
        expect.resize(15 * chunks, '\0');
        std::string onWire;
        const auto sent = lastSent(bench, chunks);
        for (std::size_t i = 0; i < chunks; ++i) {
            EXPECT_EQ(sent[i][3] >> 4, 3);
            EXPECT_EQ(sent[i][4], 15 * i);
            onWire.append(sent[i].begin() + 5, sent[i].begin() + 20);
        }
        EXPECT_EQ(onWire, expect);
        ASSERT_TRUE(friendly->GetFriendlyName(&name));
        EXPECT_EQ(name, expect);
    }

    ASSERT_TRUE(friendly->ResetFriendlyName());
    ASSERT_TRUE(friendly->GetFriendlyName(&name));
    EXPECT_EQ(name, factory);
}

}  // namespace
}  // namespace devtest
