// The firmware's answers, byte for byte, through Win32Device on a corded
// device with one long collection.

#include <gtest/gtest.h>

#include "SimHost.h"

namespace simtest {
namespace {

const char* const kMachine = R"({"devices": [
  {"id": "mouse", "name": "Sim Mouse", "pid": "0xC08B", "protocol": 4, "target_sw": 2,
   "features": ["0x0001", "0x0003", "0x0005", "0x0007", "0x0020", "0x1000",
                {"id": "0x1D4B", "version": 2, "obsolete": true, "hidden": true}, "0x1F1F",
                {"id": "0x2201", "engineering": true, "version": 1}],
   "entities": [{"type": 0, "prefix": "MPM", "version": "0x1203", "build": "0x0045", "rdnf": 1, "extra": [1, 2, 3]},
                {"type": 1, "prefix": "BOT", "version": "0x0102", "build": "0x0007", "rdnf": 0}],
   "entity_info": {"unit_id": "0x11223344", "transport": "0x0403", "pids": ["0xB012", "0xB013"], "extended_model_id": 7},
   "marketing_name": "Sim Mouse With A Long Name", "device_type": "mouse",
   "friendly_name": {"name": "Desk mouse", "default": "Sim Mouse", "max_len": 20},
   "battery": {"level": 80, "next_level": 50, "status": 1, "number_of_levels": 4, "flags": 3,
               "nominal_life": "0x0102", "critical_level": 5},
   "cookie": "0xBEEF",
   "properties": [{"name": "dpi", "type": "int", "value": 800, "min": 100, "max": 8000},
                  {"name": "lift", "type": "float", "value": 1.5, "flag_a": true, "flag_b": true},
                  {"name": "serial", "type": "int", "value": 7, "writable": false}]},
  {"id": "legacy", "name": "Old Mouse", "pid": "0xC001", "vxp": "1.0"}]})";

struct WireCase {
    const char* name;
    Bytes request;   // from report byte 2 on
    Bytes expected;  // from report byte 2 on; the rest must be zero
};

void PrintTo(const WireCase& c, std::ostream* os) { *os << c.name; }

class Wire : public ::testing::TestWithParam<WireCase> {
protected:
    static void SetUpTestSuite() { sim = new SimMachine(kMachine); }
    static void TearDownTestSuite() { delete sim; }
    static SimMachine* sim;
};
SimMachine* Wire::sim = nullptr;

Bytes request(const Bytes& tail) {
    Bytes r{0x11, 0xFF};
    r.insert(r.end(), tail.begin(), tail.end());
    r.resize(20, 0);
    return r;
}

TEST_P(Wire, AnswersWithTheseBytes) {
    Host host(*sim, sim->path(0));
    ASSERT_TRUE(host.open());
    const Bytes got = host.exchange(request(GetParam().request));
    Bytes want{0x11, 0xFF};
    want.insert(want.end(), GetParam().expected.begin(), GetParam().expected.end());
    want.resize(20, 0);
    EXPECT_EQ(got, want);
}

// Indices: 0 root, 1 feature set, 2 firmware info, 3 name, 4 friendly name,
// 5 cookie, 6 battery, 7 wireless status, 8 properties, 9 unimplemented.
INSTANTIATE_TEST_SUITE_P(
    Functions, Wire,
    ::testing::Values(
        WireCase{"root_feature_with_flags", {0, 0x0A, 0x1D, 0x4B}, {0, 0x0A, 7, 0xC0, 2}},
        WireCase{"root_feature_engineering", {0, 0x0A, 0x22, 0x01}, {0, 0x0A, 9, 0x20, 1}},
        WireCase{"root_feature_absent", {0, 0x0A, 0x12, 0x34}, {0, 0x0A, 0, 0, 0}},
        WireCase{"ping_echo", {0, 0x1B, 0, 0, 0x5A}, {0, 0x1B, 4, 2, 0x5A}},
        WireCase{"feature_count", {1, 0x0C}, {1, 0x0C, 9}},
        WireCase{"feature_id", {1, 0x1C, 7}, {1, 0x1C, 0x1D, 0x4B, 0xC0, 2}},
        WireCase{"feature_id_out_of_range", {1, 0x1C, 10}, {0xFF, 1, 0x1C, 2}},
        WireCase{"entity_count",
                 {2, 0x0A},
                 {2, 0x0A, 2, 0x11, 0x22, 0x33, 0x44, 0x04, 0x03, 0xB0, 0x12, 0xB0, 0x13, 0, 0, 7}},
        WireCase{"fw_info",
                 {2, 0x1A, 0},
                 {2, 0x1A, 0, 'M', 'P', 'M', 0x12, 0x03, 0x00, 0x45, 1, 1, 2, 3}},
        WireCase{"fw_info_bootloader",
                 {2, 0x1A, 1},
                 {2, 0x1A, 1, 'B', 'O', 'T', 0x01, 0x02, 0x00, 0x07, 0}},
        WireCase{"fw_info_no_entity", {2, 0x1A, 2}, {0xFF, 2, 0x1A, 2}},
        WireCase{"name_length", {3, 0x0A}, {3, 0x0A, 26}},
        WireCase{"name_second_chunk",
                 {3, 0x1A, 16},
                 {3, 0x1A, ' ', 'L', 'o', 'n', 'g', ' ', 'N', 'a', 'm', 'e'}},
        WireCase{"name_beyond_end", {3, 0x1A, 26}, {0xFF, 3, 0x1A, 2}},
        WireCase{"device_type", {3, 0x2A}, {3, 0x2A, 3}},
        WireCase{"friendly_lengths", {4, 0x0A}, {4, 0x0A, 10, 20, 9}},
        WireCase{"friendly_chunk",
                 {4, 0x1A, 0},
                 {4, 0x1A, 0, 'D', 'e', 's', 'k', ' ', 'm', 'o', 'u', 's', 'e'}},
        WireCase{"friendly_default",
                 {4, 0x2A, 0},
                 {4, 0x2A, 0, 'S', 'i', 'm', ' ', 'M', 'o', 'u', 's', 'e'}},
        WireCase{"cookie", {5, 0x0A}, {5, 0x0A, 0xBE, 0xEF}},
        WireCase{"battery_status", {6, 0x0A}, {6, 0x0A, 80, 50, 1}},
        WireCase{"battery_capability", {6, 0x1A}, {6, 0x1A, 4, 3, 0x01, 0x02, 5}},
        WireCase{"wireless_has_no_function", {7, 0x0A}, {0xFF, 7, 0x0A, 7}},
        WireCase{"property_count", {8, 0x0A}, {8, 0x0A, 3}},
        WireCase{"property_int_info",
                 {8, 0x1A, 0},
                 {8, 0x1A, 0, 0x04, 0x01, 0x20, 0x03, 0, 0, 100, 0, 0, 0, 0x40, 0x1F, 0, 0}},
        WireCase{"property_float_info", {8, 0x1A, 1}, {8, 0x1A, 1, 0x94, 0x02, 0, 0, 0xC0, 0x3F}},
        WireCase{"property_name", {8, 0x2A, 0}, {8, 0x2A, 0, 'd', 'p', 'i'}},
        WireCase{"property_value", {8, 0x3A, 0, 0xFF}, {8, 0x3A, 0, 4, 0x20, 0x03, 0, 0}},
        WireCase{"property_read_only", {8, 0x4A, 2, 4, 1, 0, 0, 0, 0xFF}, {0xFF, 8, 0x4A, 4}},
        WireCase{"property_unknown", {8, 0x3A, 9, 0xFF}, {0xFF, 8, 0x3A, 2}},
        WireCase{"unimplemented_feature", {9, 0x0A}, {0xFF, 9, 0x0A, 7}},
        WireCase{"unknown_feature_index", {10, 0x0A}, {0xFF, 10, 0x0A, 5}},
        WireCase{"unknown_root_function", {0, 0x2A}, {0xFF, 0, 0x2A, 7}},
        WireCase{"register_on_a_device", {0x81, 0x00}, {0x8F, 0x81, 0x00, 2}}),
    [](const auto& p) { return std::string(p.param.name); });

TEST_F(Wire, WritesChangeWhatLaterReadsSee) {
    SimMachine own(kMachine);
    Host host(own, own.path(0));
    ASSERT_TRUE(host.open());
    struct Step {
        Bytes request, expected;
    };
    const Step steps[] = {
        {{5, 0x1A, 0x12, 0x34}, {5, 0x1A, 0x12, 0x34}},  // set cookie: the answer carries it
        {{5, 0x0A}, {5, 0x0A, 0x12, 0x34}},
        {{4, 0x3A, 0, 'P', 'a', 'd'}, {4, 0x3A, 0}},  // friendly name "Pad"
        {{4, 0x0A}, {4, 0x0A, 3, 20, 9}},
        {{4, 0x1A, 0}, {4, 0x1A, 0, 'P', 'a', 'd'}},
        {{4, 0x4A}, {4, 0x4A}},  // reset to the default
        {{4, 0x0A}, {4, 0x0A, 9, 20, 9}},
        {{8, 0x4A, 0, 4, 0xE8, 0x03, 0, 0, 0xFF}, {8, 0x4A, 0, 4, 0xE8, 0x03, 0, 0}},  // 1000
        {{8, 0x3A, 0, 0xFF}, {8, 0x3A, 0, 4, 0xE8, 0x03, 0, 0}},
        {{8, 0x4A, 0, 4, 0x50, 0xC3, 0, 0, 0xFF},
         {8, 0x4A, 0, 4, 0x40, 0x1F, 0, 0}},  // clamped to 8000
        {{8, 0x6A, 0, 0xFF}, {8, 0x6A, 0}},   // reset: back to 800
        {{8, 0x3A, 0, 0xFF}, {8, 0x3A, 0, 4, 0x20, 0x03, 0, 0}},
    };
    for (const Step& s : steps) {
        Bytes want{0x11, 0xFF};
        want.insert(want.end(), s.expected.begin(), s.expected.end());
        want.resize(20, 0);
        EXPECT_EQ(host.exchange(request(s.request)), want)
            << "request at index " << int(s.request[0]);
    }
}

// A short request goes out as the device's long report (the binding pads
// it); device index 0 is answered like 0xFF, other indices not at all.
TEST_F(Wire, IndicesAndShortRequests) {
    Host host(*sim, sim->path(0));
    ASSERT_TRUE(host.open());
    EXPECT_EQ(host.exchange({0x10, 0xFF, 0, 0x1A, 0, 0, 0x77}),
              longReport({0x11, 0xFF, 0, 0x1A, 4, 2, 0x77}));
    EXPECT_EQ(host.exchange(longReport({0x11, 0x00, 0, 0x1A, 0, 0, 0x78})),
              longReport({0x11, 0x00, 0, 0x1A, 4, 2, 0x78}));
    ASSERT_TRUE(host.write(longReport({0x11, 0x03, 0, 0x1A, 0, 0, 0x79})));
    EXPECT_EQ(host.pending(), 0u);
}

TEST_F(Wire, RegisterOnlyDeviceRefusesFeatureRequests) {
    Host host(*sim, sim->path(1));
    ASSERT_TRUE(host.open());
    EXPECT_EQ(host.exchange(longReport({0x11, 0xFF, 0, 0x1A, 0, 0, 0x55})),
              longReport({0x11, 0xFF, 0x8F, 0x00, 0x1A, 0x01}));
}

}  // namespace
}  // namespace simtest
