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

// Requests and answers from report byte 2 on, after "11 FF"; the rest of
// the answer must be zero.
struct Exchange {
    const char* name;
    const char* request;
    const char* answer;
};

class Wire : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(host.open()); }
    void expectAnswers(std::initializer_list<Exchange> table) {
        for (const Exchange& e : table) {
            SCOPED_TRACE(e.name);
            EXPECT_EQ(host.exchange(hex(std::string("11 FF ") + e.request, 20)),
                      hex(std::string("11 FF ") + e.answer, 20));
        }
    }

    SimMachine sim{kMachine};
    Host host{sim, sim.path(0)};
};

// Indices: 0 root, 1 feature set, 2 firmware info, 3 name, 4 friendly name,
// 5 cookie, 6 battery, 7 wireless status, 8 properties, 9 unimplemented.
TEST_F(Wire, FunctionsAnswerWithTheseBytes) {
    expectAnswers({
        {"root_feature_with_flags", "00 0A 1D 4B", "00 0A 07 C0 02"},
        {"root_feature_engineering", "00 0A 22 01", "00 0A 09 20 01"},
        {"root_feature_absent", "00 0A 12 34", "00 0A 00 00 00"},
        {"ping_echo", "00 1B 00 00 5A", "00 1B 04 02 5A"},
        {"feature_count", "01 0C", "01 0C 09"},
        {"feature_id", "01 1C 07", "01 1C 1D 4B C0 02"},
        {"feature_id_out_of_range", "01 1C 0A", "FF 01 1C 02"},
        {"entity_count", "02 0A", "02 0A 02 11 22 33 44 04 03 B0 12 B0 13 00 00 07"},
        {"fw_info", "02 1A 00", "02 1A 00 'MPM' 12 03 00 45 01 01 02 03"},
        {"fw_info_bootloader", "02 1A 01", "02 1A 01 'BOT' 01 02 00 07 00"},
        {"fw_info_no_entity", "02 1A 02", "FF 02 1A 02"},
        {"name_length", "03 0A", "03 0A 1A"},
        {"name_second_chunk", "03 1A 10", "03 1A ' Long Name'"},
        {"name_beyond_end", "03 1A 1A", "FF 03 1A 02"},
        {"device_type", "03 2A", "03 2A 03"},
        {"friendly_lengths", "04 0A", "04 0A 0A 14 09"},
        {"friendly_chunk", "04 1A 00", "04 1A 00 'Desk mouse'"},
        {"friendly_default", "04 2A 00", "04 2A 00 'Sim Mouse'"},
        {"cookie", "05 0A", "05 0A BE EF"},
        {"battery_status", "06 0A", "06 0A 50 32 01"},
        {"battery_capability", "06 1A", "06 1A 04 03 01 02 05"},
        {"wireless_has_no_function", "07 0A", "FF 07 0A 07"},
        {"property_count", "08 0A", "08 0A 03"},
        {"property_int_info", "08 1A 00", "08 1A 00 04 01 20 03 00 00 64 00 00 00 40 1F 00 00"},
        {"property_float_info", "08 1A 01", "08 1A 01 94 02 00 00 C0 3F"},
        {"property_name", "08 2A 00", "08 2A 00 'dpi'"},
        {"property_value", "08 3A 00 FF", "08 3A 00 04 20 03 00 00"},
        {"property_read_only", "08 4A 02 04 01 00 00 00 FF", "FF 08 4A 04"},
        {"property_unknown", "08 3A 09 FF", "FF 08 3A 02"},
        {"unimplemented_feature", "09 0A", "FF 09 0A 07"},
        {"unknown_feature_index", "0A 0A", "FF 0A 0A 05"},
        {"unknown_root_function", "00 2A", "FF 00 2A 07"},
        {"register_on_a_device", "81 00", "8F 81 00 02"},
    });
}

TEST_F(Wire, WritesChangeWhatLaterReadsSee) {
    expectAnswers({
        {"set_cookie_answer_carries_it", "05 1A 12 34", "05 1A 12 34"},
        {"cookie_read_back", "05 0A", "05 0A 12 34"},
        {"set_friendly_name", "04 3A 00 'Pad'", "04 3A 00"},
        {"friendly_lengths_after_set", "04 0A", "04 0A 03 14 09"},
        {"friendly_chunk_after_set", "04 1A 00", "04 1A 00 'Pad'"},
        {"friendly_reset", "04 4A", "04 4A"},
        {"friendly_lengths_after_reset", "04 0A", "04 0A 09 14 09"},
        {"set_dpi_1000", "08 4A 00 04 E8 03 00 00 FF", "08 4A 00 04 E8 03 00 00"},
        {"dpi_read_back", "08 3A 00 FF", "08 3A 00 04 E8 03 00 00"},
        {"dpi_clamped_to_8000", "08 4A 00 04 50 C3 00 00 FF", "08 4A 00 04 40 1F 00 00"},
        {"dpi_reset", "08 6A 00 FF", "08 6A 00"},
        {"dpi_back_to_800", "08 3A 00 FF", "08 3A 00 04 20 03 00 00"},
    });
}

// A short request goes out as the device's long report (the binding pads
// it); device index 0 is answered like 0xFF, other indices not at all. A
// register-only device refuses feature requests.
TEST_F(Wire, IndicesShortRequestsAndRegisterOnlyDevices) {
    EXPECT_EQ(host.exchange(hex("10 FF 00 1A 00 00 77")), hex("11 FF 00 1A 04 02 77", 20));
    EXPECT_EQ(host.exchange(hex("11 00 00 1A 00 00 78", 20)), hex("11 00 00 1A 04 02 78", 20));
    ASSERT_TRUE(host.write(hex("11 03 00 1A 00 00 79", 20)));
    EXPECT_EQ(host.pending(), 0u);

    Host legacy(sim, sim.path(1));
    ASSERT_TRUE(legacy.open());
    EXPECT_EQ(legacy.exchange(hex("11 FF 00 1A 00 00 55", 20)), hex("11 FF 8F 00 1A 01", 20));
}

}  // namespace
}  // namespace simtest
