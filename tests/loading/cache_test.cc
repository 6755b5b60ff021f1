// The feature cache file against simulated devices: its exact form, its
// round trip, what damaged files do, the delayed write, and what a
// reflashed device does to it.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <rapidxml/rapidxml.hpp>
#include <regex>
#include <sstream>
#include <thread>

#include "Base/ErrorRecord.h"
#include "Device/FeatureCacheFile.h"
#include "Features/IFeature0000Root.h"
#include "RunLoopHost.h"
#include "Session.h"

namespace loadtest {
namespace {

namespace fc = devio::feature_cache;
using namespace std::chrono_literals;

const char* const kDozenFirmware = "0MPM120300411234ABCD";
// Root function 0 (GetFeature) for id 0x0020, in key form; the simulated
// mouse has that feature at index 5.
const char* const kGetFeature0020 = "10FF000A0020";
constexpr unsigned kRealIndex = 5;
// An answer the device never gives: the feature at index 0x7E.
const char* const kPlantedAnswer = "10FF000A7E0000";
constexpr unsigned kPlantedIndex = 0x7E;

std::string document(const std::string& fw_attribute, const std::string& commands) {
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<cache " + fw_attribute + " path=\"p\">\n" +
           commands + "</cache>\n";
}
std::string command(const std::string& cmd, const std::string& rsp) {
    return "\t<command cmd=\"" + cmd + "\" rsp=\"" + rsp + "\"/>\n";
}

// The index that the device's root gives for 0x0020 when asked through the
// cache: the planted one if the file's entry was taken.
unsigned index_of_0020(devio::Device& dev) {
    auto* root = dynamic_cast<devio::IFeature0000Root*>(dev.feature_by_id(0).get());
    unsigned index = 0;
    if (root == nullptr ||
        !root->GetFeature(0x0020, &index, nullptr, nullptr, nullptr, nullptr, true)) {
        ADD_FAILURE() << "GetFeature failed, err " << devio::error_record().err;
    }
    return index;
}

TEST(CacheFile, NameHashAndHex) {
    // Published FNV-1a 64 vectors.
    EXPECT_EQ(fc::path_hash(""), 0xcbf29ce484222325ull);
    EXPECT_EQ(fc::path_hash("a"), 0xaf63dc4c8601ec8cull);
    EXPECT_EQ(fc::path_hash("foobar"), 0x85944171f73967e8ull);
    EXPECT_EQ(fc::file_name("/d/", 0xC08B, "a"), "/d/C08B_8601EC8C.xml");
    EXPECT_EQ(fc::file_name("/d/", 0xC08B, ""), "/d/C08B_84222325.xml");
    EXPECT_EQ(fc::file_name("/d/", 0x0A1, "foobar"), "/d/A1_F73967E8.xml") << "no leading zeros";
    EXPECT_NE(fc::file_name("/d/", 0xC08B, "/dev/hidraw1"),
              fc::file_name("/d/", 0xC08B, "/dev/hidraw2"));

    EXPECT_EQ(fc::to_hex({0x00, 0x0A, 0xFF, 0x5c}), "000AFF5C");
    struct Case {
        const char* text;
        Bytes want;
    };
    const Case cases[] = {
        {"10FF0A", {0x10, 0xFF, 0x0A}},
        {"10ff0a", {0x10, 0xFF, 0x0A}},
        {"10FG0A", {0x10, 0x0A}},
        {"10F", {0x10}},
        {"1", {}},
        {"", {}},
        {"G10F", {0x0F}} /* pairs, not a scan: "G1" goes, "0F" stays */,
        {"10 F0A", {0x10, 0x0A}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(fc::from_hex(c.text, std::strlen(c.text)), c.want) << c.text;
    }
}

TEST(CacheFile, WrittenAtTheEndInItsExactFormAndRoundTripsByteForByte) {
    Session s;
    s.start().features();
    s.stop();
    const std::string first = read_file(s.cache_file());
    std::istringstream lines(first);
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line, R"(<?xml version="1.0" encoding="utf-8"?>)");
    std::getline(lines, line);
    EXPECT_EQ(line,
              "<cache fw=\"" + std::string(kDozenFirmware) + "\" path=\"" + s.hw->path() + "\">");
    std::vector<Bytes> keys;
    // Each entry: pairs of upper-case hexadecimal digits, at least one.
    const std::regex entry("\t<command cmd=\"((?:[0-9A-F]{2})+)\" rsp=\"((?:[0-9A-F]{2})+)\"/>");
    while (std::getline(lines, line) && line != "</cache>") {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, entry)) << line;
        const std::string cmd_text = m.str(1), rsp_text = m.str(2);
        const Bytes cmd = fc::from_hex(cmd_text.c_str(), cmd_text.size());
        const Bytes rsp = fc::from_hex(rsp_text.c_str(), rsp_text.size());
        ASSERT_GE(cmd.size(), 4u);
        ASSERT_GE(rsp.size(), 4u);
        EXPECT_EQ(cmd[3] & 0x0F, 0x0A) << line;
        EXPECT_EQ(rsp[3] & 0x0F, 0x0A) << line;
        EXPECT_EQ(cmd[3] & 0xF0, rsp[3] & 0xF0);
        keys.push_back(cmd);
    }
    EXPECT_EQ(line, "</cache>");
    // The XML library's printer ends the document with an empty line.
    EXPECT_EQ(first.substr(first.size() - 10), "</cache>\n\n");
    EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end())) << "in the map's key order";
    EXPECT_EQ(std::adjacent_find(keys.begin(), keys.end()), keys.end());
    // Version, two lookups, entity count and info, count, eleven ids; the
    // firmware check's own questions are never cached.
    EXPECT_EQ(keys.size(), 17u);

    devio::Device& again = s.start();
    again.features();
    ASSERT_EQ(s.sent().size(), 3u);
    again.perform_cache_write();
    EXPECT_EQ(read_file(s.cache_file()), first);
}

TEST(CacheFile, DamagedEntriesAreSkippedAndTheRestIsTaken) {
    struct Case {
        const char* name;
        std::string text;
        unsigned want_index;
    };
    const std::string fw = "fw=\"" + std::string(kDozenFirmware) + "\"";
    const Case cases[] = {
        {"good entry", document(fw, command(kGetFeature0020, kPlantedAnswer)), kPlantedIndex},
        {"no fw attribute: taken on trust", document("", command(kGetFeature0020, kPlantedAnswer)),
         kPlantedIndex},
        {"bad hex pair skipped", document(fw, command("10FF00zz0A0020", "10FF000A7EXX0000")),
         kPlantedIndex},
        {"odd last character ignored", document(fw, command("10FF000A00201", "10FF000A7E00001")),
         kPlantedIndex},
        {"lower-case digits", document(fw, command("10ff000a0020", "10ff000a7e0000")),
         kPlantedIndex},
        {"missing rsp", document(fw, "\t<command cmd=\"10FF000A0020\"/>\n"), kRealIndex},
        {"missing cmd", document(fw, "\t<command rsp=\"10FF000A7E0000\"/>\n"), kRealIndex},
        {"missing attribute spares the next entry",
         document(fw,
                  "\t<command cmd=\"10FF000A0020\"/>\n" + command(kGetFeature0020, kPlantedAnswer)),
         kPlantedIndex},
        {"no cache element", "<?xml version=\"1.0\"?>\n<other/>\n", kRealIndex},
        {"empty file", "", kRealIndex},
    };
    Session s;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        write_file(s.cache_file(), c.text);
        devio::Device& dev = s.start();
        ASSERT_TRUE(dev.load_feature_root(false));
        EXPECT_EQ(index_of_0020(dev), c.want_index);
        s.stop();
    }
}

TEST(CacheFile, MalformedXmlThrowsAndIsRepairedByTheNextWrite) {
    const char* const texts[] = {
        "<cache fw=\"x\"><command cmd=\"10\"",
        "<cache fw=\"x\" path=\"y\"><command cmd=\"10\" rsp=\"10\"/>",
        "\x01\x02\xff junk",
        "<cache fw=\"&#xZZ;\"/>",
    };
    Session s;
    for (const char* text : texts) {
        SCOPED_TRACE(text);
        write_file(s.cache_file(), text);
        devio::Device& dev = s.start(false);
        EXPECT_THROW(dev.persistent_data_directory(s.cache_dir), rapidxml::parse_error);
        // The device is none the worse: everything comes from the device.
        s.rec.clear();
        ASSERT_TRUE(dev.load_feature_root(false));
        EXPECT_EQ(index_of_0020(dev), kRealIndex);
        EXPECT_GE(s.sent().size(), 7u);
        s.stop();
        const std::string repaired = read_file(s.cache_file());
        EXPECT_EQ(repaired.rfind("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<cache fw=\"", 0), 0u)
            << repaired;
    }
}

// A file read by a device that already knows its firmware: a file of
// another firmware is dropped whole and overwritten at the end, and the
// answers of a good one lose to those already in memory.
TEST(CacheFile, FileOfAnotherFirmwareIsDroppedAndAnswersInMemoryWin) {
    Session s;
    for (const std::string fw : {"0MPM11000000ABCD", kDozenFirmware}) {
        SCOPED_TRACE(fw);
        const bool ours = fw == kDozenFirmware;
        devio::Device& dev = s.start(false);
        ASSERT_TRUE(dev.load_feature_root(false));
        ASSERT_EQ(dev.firmware_text(), kDozenFirmware);
        if (ours) {
            EXPECT_EQ(index_of_0020(dev), kRealIndex);
        }
        write_file(s.cache_file(),
                   document("fw=\"" + fw + "\"", command(kGetFeature0020, kPlantedAnswer)));
        dev.persistent_data_directory(s.cache_dir);
        s.rec.clear();
        EXPECT_EQ(index_of_0020(dev), kRealIndex);
        if (ours) {
            EXPECT_TRUE(s.sent().empty());
        }
        s.stop();
        const std::string rewritten = read_file(s.cache_file());
        if (!ours) {
            EXPECT_NE(rewritten.find("fw=\"" + std::string(kDozenFirmware) + "\""),
                      std::string::npos)
                << rewritten;
            EXPECT_EQ(rewritten.find("7E0000"), std::string::npos);
        }
    }
}

TEST(CacheFile, WrittenTenSecondsAfterTheFirstNewAnswer) {
    devio::RunLoopHost host;
    ASSERT_TRUE(host.start());
    Session s;
    const auto begin = devtest::Clock::now();
    ASSERT_EQ(s.start().features().size(), 13u);
    const auto discovered = devtest::ms_since(begin);
    if (discovered < 8000) {
        EXPECT_TRUE(read_file(s.cache_file()).empty()) << "not before the delay";
    }
    std::string text;
    while (text.empty() && devtest::ms_since(begin) < 40000) {
        std::this_thread::sleep_for(100ms);
        text = read_file(s.cache_file());
    }
    ASSERT_FALSE(text.empty()) << "written by the timer, without the device ending";
    EXPECT_GE(devtest::ms_since(begin), 9000);
    EXPECT_NE(text.find(kDozenFirmware), std::string::npos);
    // Nothing new since: the end of the device writes nothing more.
    std::remove(s.cache_file().c_str());
    s.stop();
    EXPECT_TRUE(read_file(s.cache_file()).empty());
    host.stop();
}

// Counts what a device tells its Connect subscribers.
class FirmwareWatch : public devio::Subscriber<devio::IDevice::Connect> {
public:
    void onFirmwareChanged(const std::shared_ptr<devio::IDevice>& device) override {
        last = device.get();
        ++changes;
    }
    std::atomic<int> changes{0};
    std::atomic<devio::IDevice*> last{nullptr};
};

TEST(Reflash, NextStartForgetsRereadsAndRewritesTheCache) {
    Session s;
    s.start().features();
    s.stop();
    s.sim("reflash mouse 0 0x1300");

    devio::Device& dev = s.start();
    FirmwareWatch watch;
    ASSERT_TRUE(watch.subscribe(s.dev, devio::DeliveryDirect));
    EXPECT_TRUE(dev.features().empty());
    EXPECT_EQ(devio::error_record().err, devio::FwVersionChanged);
    EXPECT_EQ(watch.changes, 1);
    EXPECT_EQ(watch.last, &dev);
    EXPECT_EQ(dev.firmware_text(), "");

    const auto all = dev.features();
    EXPECT_EQ(all.size(), 13u) << "read again from the device";
    EXPECT_EQ(dev.firmware_text(), "0MPM130000411234ABCD");
    EXPECT_GE(s.sent().size(), 20u);
    watch.unsubscribe(s.dev);
    s.stop();
    const std::string text = read_file(s.cache_file());
    EXPECT_NE(text.find("fw=\"0MPM130000411234ABCD\""), std::string::npos);
    EXPECT_NE(text.find("13000041"), std::string::npos) << "the new firmware's answer";
    EXPECT_EQ(text.find("12030041"), std::string::npos) << "nothing of the old firmware";

    // And the start after that is warm again.
    s.start().features();
    EXPECT_EQ(s.sent().size(), 3u);
}

TEST(Reflash, SilenceOfALoadedDeviceLeadsToTheCheckAndItsFailure) {
    Session s(kDozenFeatures, devtest::kQuickExchanges);
    devio::Device& dev = s.start(false);
    ASSERT_EQ(dev.features().size(), 13u);
    FirmwareWatch watch;
    ASSERT_TRUE(watch.subscribe(s.dev, devio::DeliveryDirect));
    s.sim("reflash mouse 0 0x1300");
    s.sim("fault mouse drop 1");
    Bytes answer;
    const Bytes get_feature_0020 = {0x10, 0xFF, 0x00, 0x00, 0x00, 0x20, 0x00};
    EXPECT_FALSE(dev.sendSynchronousCommand(get_feature_0020, answer, 0, {}));
    EXPECT_EQ(devio::error_record().err, devio::FwVersionChanged);
    EXPECT_EQ(watch.changes, 1);
    EXPECT_EQ(dev.firmware_text(), "");
    ASSERT_EQ(dev.features().size(), 13u);
    EXPECT_EQ(dev.firmware_text(), "0MPM130000411234ABCD");
    watch.unsubscribe(s.dev);
}

}  // namespace
}  // namespace loadtest
