// The feature framework: the registry, the command bytes before the hardware
// pads them, the checks on answers, and the order in which unsolicited
// traffic reaches a feature's subscribers and its own hook.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <thread>
#include <typeinfo>

#include "FeatureBench.h"
#include "Features/Feature.h"
#include "Features/Feature0000Root.h"
#include "Features/Feature0001FeatureSet.h"
#include "Features/Feature0003FirmwareInfo.h"
#include "Features/Feature0005DeviceNameType.h"
#include "Features/Feature0007DeviceFriendlyName.h"
#include "Features/Feature0020ConfigChange.h"
#include "Features/Feature1000BatteryUnifiedLeveStatus.h"
#include "Features/Feature1D4BWirelessStatus.h"
#include "Features/Feature1F1FFirmwareProperties.h"
#include "Features/IFeature0001FeatureSet.h"
#include "Features/IFeature0003FirmwareInfo.h"
#include "xlog.h"

namespace devtest {
namespace {

// The device as a feature sees it, with the exchange itself scripted: the
// hardware layer pads every report, so the bytes that a feature builds are
// visible only here. Everything but the two sending calls is the real
// Device.
class ScriptedDevice : public devio::Device {
public:
    using devio::Device::Device;
    std::function<Bytes(const Bytes&)> answer;
    std::vector<Bytes> commands;
    std::vector<int> cacheModes;
    std::vector<Match> matches;

    bool sendSynchronousCommand(const Bytes& command, Bytes& out, int cache_mode,
                                const Match& match) override {
        commands.push_back(command);
        cacheModes.push_back(cache_mode);
        matches.push_back(match);
        out = answer(command);
        return true;
    }
    bool sendCommand(const Bytes& report, bool /*wait_ready*/) override {
        commands.push_back(report);
        return true;
    }
};

// An answer to `command` with these parameters, in a report of `size`.
Bytes reply(const Bytes& command, const Bytes& params, std::size_t size = 20) {
    Bytes r(size, 0);
    const Bytes head{0x11, 0xFF, command.at(2), command.at(3)};
    for (std::size_t i = 0; i < size; ++i) {
        if (i < head.size())
            r[i] = head[i];
        else if (i - head.size() < params.size())
            r[i] = params[i - head.size()];
    }
    return r;
}

struct Scripted {
    Scripted() : rig(false), dev(std::make_shared<ScriptedDevice>(rig.hw)) {
        dev->answer = [](const Bytes& c) { return reply(c, {}); };
    }
    DeviceRig rig;
    std::shared_ptr<ScriptedDevice> dev;
};

TEST(Framework, CommandBytesAndAnswerChecks) {
    Scripted s;
    const unsigned sw = s.dev->swid();
    auto feature = devio::createFeature(0x2201, 0x0C, s.dev);
    struct Case {
        unsigned function;
        Bytes params;
        Bytes expect;
    };
    const auto fsw = [sw](unsigned f) { return static_cast<devio::Byte>(f << 4 | sw); };
    const Case cases[] = {
        {0, {}, {0x10, 0xFF, 0x0C, fsw(0)}},
        {3, {1, 2, 3}, {0x10, 0xFF, 0x0C, fsw(3), 1, 2, 3}},
        {0xF, {1, 2, 3, 4}, {0x11, 0xFF, 0x0C, fsw(0xF), 1, 2, 3, 4}},
        // The function is cut to a byte before it is shifted into place.
        {0x12, {9}, {0x10, 0xFF, 0x0C, fsw(2), 9}},
    };
    for (const Case& c : cases) {
        Bytes response;
        ASSERT_TRUE(feature->sendSynchronousFeatureCommand(c.function, c.params, response, 1));
        EXPECT_EQ(s.dev->commands.back(), c.expect);
        EXPECT_EQ(s.dev->cacheModes.back(), 1);
        EXPECT_TRUE(s.dev->matches.back().empty());
        ASSERT_TRUE(feature->sendFeatureCommand(c.function, c.params));
        EXPECT_EQ(s.dev->commands.back(), c.expect);
    }

    // Answers of 7 bytes carry 3 parameters; shorter ones are refused, and
    // so is an answer for another index or function.
    Bytes response;
    s.dev->answer = [](const Bytes& c) { return reply(c, {7, 8, 9}, 7); };
    ASSERT_TRUE(feature->sendSynchronousFeatureCommand(1, {}, response, 0));
    EXPECT_EQ(response, (Bytes{7, 8, 9}));
    s.dev->answer = [](const Bytes& c) { return reply(c, {}, 20); };
    ASSERT_TRUE(feature->sendSynchronousFeatureCommand(1, {}, response, 0));
    EXPECT_EQ(response.size(), 16u);
    // Each damage of a good answer: its length, or one byte changed.
    struct Bad {
        const char* what;
        std::size_t size, at;
        devio::Byte flip;
        devio::ErrorCode err;
    };
    const Bad bad[] = {
        {"six bytes", 6, 0, 0, devio::CommandResponseTooShort},
        {"another function", 20, 3, 0x20, devio::InternalError},
        {"another software id", 20, 3, 0x01, devio::InternalError},
        {"another index", 20, 2, 0x01, devio::InternalError},
    };
    for (const Bad& b : bad) {
        SCOPED_TRACE(b.what);
        s.dev->answer = [&b](const Bytes& c) {
            Bytes r = reply(c, {7, 8}, b.size);
            r[b.at] ^= b.flip;
            return r;
        };
        response = {42};
        devio::set_error(devio::Success);
        EXPECT_FALSE(feature->sendSynchronousFeatureCommand(1, {}, response, 0));
        EXPECT_EQ(devio::error_record().err, b.err);
        if (b.err == devio::InternalError) {
            EXPECT_STREQ(devio::error_record().str, "response does not match command");
        }
        EXPECT_EQ(response, (Bytes{42})) << "left alone on failure";
    }
}

TEST(Framework, TypedCallsOnShortAndOddAnswers) {
    Scripted s;
    auto root =
        std::dynamic_pointer_cast<devio::IFeature0000Root>(devio::createFeature(0x0000, 0, s.dev));
    auto set = std::dynamic_pointer_cast<devio::IFeature0001FeatureSet>(
        devio::createFeature(0x0001, 1, s.dev));
    auto fw = std::dynamic_pointer_cast<devio::IFeature0003FirmwareInfo>(
        devio::createFeature(0x0003, 2, s.dev));
    ASSERT_TRUE(root && set && fw);

    // GetFeature asks the cache only when told to. (The decoding of its
    // answers is read from a real device's table in the root's tests.)
    ASSERT_TRUE(root->GetFeature(0x1D4B, nullptr, nullptr, nullptr, nullptr, nullptr, true));
    EXPECT_EQ(s.dev->cacheModes.back(), 1);
    ASSERT_TRUE(root->GetFeature(0x1D4B, nullptr, nullptr, nullptr, nullptr, nullptr, false));
    EXPECT_EQ(s.dev->cacheModes.back(), 0);

    // The feature set's record with all three flags set, in its own order.
    s.dev->answer = [](const Bytes& c) { return reply(c, {0x1D, 0x4B, 0xE0}, 7); };
    unsigned id = 0, version = 9;
    bool eng = false, sw = false, obs = false;
    ASSERT_TRUE(set->GetFeatureID(3, &id, &eng, &sw, &obs, &version));
    EXPECT_EQ(id, 0x1D4Bu);
    EXPECT_TRUE(eng && sw && obs);
    EXPECT_EQ(version, 0u) << "a cut answer reads as 0";

    // Ping: the echo position is matched by the device, and a wrong echo
    // that still got through is refused.
    s.dev->answer = [](const Bytes& c) { return reply(c, {4, 0, 0x33}, 7); };
    EXPECT_TRUE(root->Ping(0x33));
    EXPECT_EQ(s.dev->matches.back(), (ScriptedDevice::Match{2}));
    EXPECT_EQ(s.dev->cacheModes.back(), 0);
    EXPECT_FALSE(root->Ping(0x34));
    EXPECT_EQ(devio::error_record().err, devio::PingEchoMismatch);

    // TargetSw asks once per object, even where the cache would answer.
    const std::size_t before = s.dev->commands.size();
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(root->TargetSw(nullptr, nullptr));
    EXPECT_EQ(s.dev->commands.size(), before + 1);

    // Firmware info needs all 16 parameter bytes.
    std::string text;
    s.dev->answer = [](const Bytes& c) { return reply(c, {0, 'M', 'P', 'M', 1, 2}, 19); };
    devio::set_error(devio::Success);
    EXPECT_FALSE(fw->GetFwInfo(0, nullptr, nullptr, &text, nullptr, nullptr, nullptr, true));
    EXPECT_EQ(devio::error_record().err, devio::CommandResponseTooShort);
    s.dev->answer = [](const Bytes& c) { return reply(c, {0, 'M', 'P', 'M', 1, 2}, 20); };
    EXPECT_TRUE(fw->GetFwInfo(0, nullptr, nullptr, &text, nullptr, nullptr, nullptr, true));
    EXPECT_EQ(text, "0102");
}

// Every class the library has comes from the registry; an id without a
// class makes a plain feature. The index is a byte either way.
TEST(Framework, RegistryMakesEachKnownClassAndPlainFeaturesOtherwise) {
    Scripted s;
    const std::pair<unsigned, const std::type_info*> classes[] = {
        {0x0000, &typeid(devio::Feature0000Root)},
        {0x0001, &typeid(devio::Feature0001FeatureSet)},
        {0x0003, &typeid(devio::Feature0003FirmwareInfo)},
        {0x0005, &typeid(devio::Feature0005DeviceNameType)},
        {0x0007, &typeid(devio::Feature0007DeviceFriendlyName)},
        {0x0020, &typeid(devio::Feature0020ConfigChange)},
        {0x1000, &typeid(devio::Feature1000BatteryUnifiedLeveStatus)},
        {0x1D4B, &typeid(devio::Feature1D4BWirelessStatus)},
        {0x1F1F, &typeid(devio::Feature1F1FFirmwareProperties)},
    };
    for (const auto& [id, type] : classes) {
        auto feature = devio::createFeature(id, 7, s.dev);
        ASSERT_TRUE(feature);
        EXPECT_EQ(typeid(*feature), *type) << id;
        EXPECT_EQ(feature->featureId(), id);
    }
    auto unknown = devio::createFeature(0xBEEF, 0x302, s.dev);
    ASSERT_TRUE(unknown);
    EXPECT_EQ(typeid(*unknown), typeid(devio::Feature));
    EXPECT_EQ(unknown->featureId(), 0xBEEFu);
    EXPECT_EQ(unknown->featureIndex(), 0x02u);
    EXPECT_EQ(unknown->device(), s.dev);
    EXPECT_EQ(unknown->sharedFeature(), unknown);
}

// This process's log lines containing `text`, once `marker` has been
// written; empty if the marker never shows. The log thread flushes its file
// after 10 s without new lines, so this takes that long.
std::optional<std::size_t> countLoggedAfter(const std::string& marker, const std::string& text) {
    const char* tmp = std::getenv("TMPDIR");
    const std::filesystem::path folder =
        std::filesystem::path(tmp != nullptr ? tmp : "/tmp") / "xlog_vantrel";
    const std::string ours = "_" + std::to_string(::getpid()) + "_";
    const auto deadline = Clock::now() + 40s;
    while (Clock::now() < deadline) {
        std::this_thread::sleep_for(200ms);
        std::size_t count = 0;
        bool marked = false;
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator(folder, ec)) {
            if (entry.path().filename().string().find(ours) == std::string::npos) continue;
            std::ifstream in(entry.path());
            for (std::string line; std::getline(in, line);) {
                count += line.find(text) != std::string::npos;
                marked = marked || line.find(marker) != std::string::npos;
            }
        }
        if (marked) return count;
    }
    return std::nullopt;
}

// Every unit that includes a feature's interface holds a force-inclusion
// object; the feature says once that it is in.
TEST(Framework, InclusionIsLoggedOncePerFeature) {
    for (int i = 0; i < 3; ++i) {
        devio::IFeatureForceInclusion0000 again0;
        devio::IFeatureForceInclusion0001 again1;
        devio::IFeatureForceInclusion0003 again3;
        devio::IFeatureForceInclusion1F1F again1F1F;
    }
    static int round = 0;
    const std::string marker =
        "inclusion check " + std::to_string(::getpid()) + "." + std::to_string(++round);
    devio::xLog("FeatureTest", 0, "devtest::InclusionIsLoggedOncePerFeature", "%s", marker.c_str());
    for (const char* text : {"Devio: Feature0000 included", "Devio: Feature0001 included",
                             "Devio: Feature0003 included", "Devio: Feature0005 included",
                             "Devio: Feature0007 included", "Devio: Feature0020 included",
                             "Devio: Feature1000 included", "Devio: Feature1D4B included",
                             "Devio: Feature1F1F included"}) {
        SCOPED_TRACE(text);
        const auto count = countLoggedAfter(marker, text);
        ASSERT_TRUE(count.has_value()) << "the log never showed the marker";
        EXPECT_EQ(*count, 1u);
    }
}

TEST(Framework, FeatureOfAGoneDeviceFailsEveryCall) {
    std::shared_ptr<devio::IFeature> feature;
    std::shared_ptr<devio::IFeature0003FirmwareInfo> fw;
    {
        Scripted s;
        feature = devio::createFeature(0x0000, 0, s.dev);
        fw = std::dynamic_pointer_cast<devio::IFeature0003FirmwareInfo>(
            devio::createFeature(0x0003, 2, s.dev));
    }
    EXPECT_EQ(feature->device(), nullptr);
    Bytes response;
    std::uint32_t model = 0;
    const std::pair<const char*, std::function<bool()>> calls[] = {
        {"send", [&] { return feature->sendFeatureCommand(0, {}); }},
        {"exchange", [&] { return feature->sendSynchronousFeatureCommand(0, {}, response, 1); }},
        {"matching",
         [&] { return feature->sendSynchronousFeatureCommandMatching(0, {}, response, 0, {2}); }},
        {"typed call", [&] { return fw->GetModelId(&model); }},
    };
    for (const auto& [what, call] : calls) {
        SCOPED_TRACE(what);
        devio::set_error(devio::Success);
        EXPECT_FALSE(call());
        EXPECT_EQ(devio::error_record().err, devio::DeviceRemoved);
    }
}

// Sees each event of a feature and how many of them its hook had seen then.
class Watcher : public devio::Subscriber<devio::IFeature::FeatureReport> {
public:
    explicit Watcher(std::shared_ptr<RecordingFeature> f) : feature(std::move(f)) {}
    void onFeatureReport(int function, const std::vector<devio::Byte>& params) override {
        std::lock_guard<std::mutex> lock(mutex);
        seen.push_back({static_cast<unsigned>(function), 0, params, feature->calls().size()});
    }
    void onUnexpectedResponse(unsigned function, unsigned swid,
                              const std::vector<devio::Byte>& params) override {
        std::lock_guard<std::mutex> lock(mutex);
        seen.push_back({function, swid, params, feature->calls().size()});
    }
    struct Seen {
        unsigned function, swid;
        Bytes params;
        std::size_t hookCallsBefore;
    };
    std::vector<Seen> events() {
        std::lock_guard<std::mutex> lock(mutex);
        return seen;
    }

private:
    std::shared_ptr<RecordingFeature> feature;
    std::mutex mutex;
    std::vector<Seen> seen;
};

// From the firmware through the read path: the feature's subscribers first,
// then its own hook, for notifications and for other programs' answers.
TEST(Framework, UnsolicitedTrafficReachesSubscribersBeforeTheHook) {
    DeviceRig rig;
    auto watcher = std::make_shared<Watcher>(rig.feature);
    ASSERT_TRUE(watcher->subscribe(rig.feature, devio::DeliveryDirect));
    // One exchange first: the simulated node then knows our connection.
    Bytes answer;
    ASSERT_TRUE(rig.dev->sendSynchronousCommand(get_feature_0020(), answer, 0, {}));

    rig.sim("notify mouse 0x0020 1 0xAB 0xCD");
    ASSERT_TRUE(rig.rec.wait_reports(devio::IDevice::ReportNotification, 1));
    const unsigned other = rig.dev->swid() == 3 ? 4 : 3;
    rig.sim("cookie mouse 0x1234 " + std::to_string(other));
    ASSERT_TRUE(rig.rec.wait_reports(devio::IDevice::ReportOtherSoftware, 1));

    const auto seen = watcher->events();
    const auto calls = rig.feature->calls();
    ASSERT_EQ(seen.size(), 2u);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(seen[0].function, 1u);
    EXPECT_EQ(seen[0].swid, 0u);
    EXPECT_EQ(seen[0].params.at(0), 0xAB);
    EXPECT_EQ(seen[0].params.at(1), 0xCD);
    EXPECT_EQ(seen[0].hookCallsBefore, 0u);
    EXPECT_TRUE(calls[0].notification);
    EXPECT_EQ(calls[0].params, seen[0].params);
    EXPECT_EQ(seen[1].function, 1u);
    EXPECT_EQ(seen[1].swid, other);
    EXPECT_EQ(seen[1].params.at(0), 0x12);
    EXPECT_EQ(seen[1].params.at(1), 0x34);
    EXPECT_EQ(seen[1].hookCallsBefore, 1u);
    EXPECT_FALSE(calls[1].notification);
    EXPECT_EQ(calls[1].swid, other);
    watcher->unsubscribe(rig.feature);
}

}  // namespace
}  // namespace devtest
