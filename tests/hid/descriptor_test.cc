// The report descriptor parser against real descriptors and hostile input.

#include <gtest/gtest.h>

#include "Hid/HidCaps.h"
#include "Hid/HidItem.h"
#include "Hid/ReportDescriptor.h"
#include "descriptors.h"

namespace {

using devio::hid::CollectionCaps;
using devio::hid::ReportDescriptor;
using hidtest::Bytes;

struct Expected {
    const char* name;
    Bytes bytes;
    std::size_t collection;
    std::uint16_t page, usage;
    std::uint16_t in_len, out_len;
    std::size_t in_values, in_buttons, out_values, out_buttons;
    std::uint16_t link_nodes;
    std::vector<std::uint8_t> out_ids;
};

// A case prints as its name; the byte dump gtest would make buries the test list.
void PrintTo(const Expected& e, std::ostream* os) {
    *os << e.name;
}

class DescriptorCaps : public ::testing::TestWithParam<Expected> {};

TEST_P(DescriptorCaps, MatchesWhatTheDescriptorSays) {
    const Expected& e = GetParam();
    ReportDescriptor rd;
    std::string error;
    ASSERT_TRUE(devio::hid::parseReportDescriptor(e.bytes, rd, error)) << error;
    ASSERT_GT(rd.collections.size(), e.collection);
    const CollectionCaps c = devio::hid::summarizeCollection(rd.collections[e.collection]);
    EXPECT_EQ(c.usage_page, e.page);
    EXPECT_EQ(c.usage, e.usage);
    EXPECT_EQ(c.input.report_length, e.in_len);
    EXPECT_EQ(c.output.report_length, e.out_len);
    EXPECT_EQ(c.input.value_caps.size(), e.in_values);
    EXPECT_EQ(c.input.button_caps.size(), e.in_buttons);
    EXPECT_EQ(c.output.value_caps.size(), e.out_values);
    EXPECT_EQ(c.output.button_caps.size(), e.out_buttons);
    EXPECT_EQ(c.link_collection_nodes, e.link_nodes);
    EXPECT_EQ(c.output.report_ids, e.out_ids);
    EXPECT_EQ(c.feature.report_length, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Real, DescriptorCaps,
    ::testing::Values(
        // Modifier bits, a padding byte and a key array: 8 bytes plus the id
        // byte; the LED report is one byte.
        Expected{"keyboard", hidtest::kKeyboard, 0, 0x01, 0x06, 9, 2, 0, 2, 0, 1, 1, {0}},
        Expected{"mouse", hidtest::kMouse, 0, 0x01, 0x02, 4, 0, 2, 1, 0, 0, 2, {}},
        Expected{"vendor_short",
                 hidtest::vendorCollection(0xFF00, 1, 0x10, 6),
                 0,
                 0xFF00,
                 1,
                 7,
                 7,
                 0,
                 1,
                 0,
                 1,
                 1,
                 {0x10}},
        Expected{"vendor_long",
                 hidtest::vendorCollection(0xFF00, 2, 0x11, 19),
                 0,
                 0xFF00,
                 2,
                 20,
                 20,
                 0,
                 1,
                 0,
                 1,
                 1,
                 {0x11}},
        Expected{
            "both_first", hidtest::vendorShortAndLong(), 0, 0xFF00, 1, 7, 7, 0, 1, 0, 1, 1, {0x10}},
        Expected{"both_second",
                 hidtest::vendorShortAndLong(),
                 1,
                 0xFF00,
                 2,
                 20,
                 20,
                 0,
                 1,
                 0,
                 1,
                 1,
                 {0x11}},
        Expected{"mask_piece",
                 hidtest::vendorCollection(0xFF43, 0x0301, 0x11, 19),
                 0,
                 0xFF43,
                 0x0301,
                 20,
                 20,
                 0,
                 1,
                 0,
                 1,
                 1,
                 {0x11}},
        Expected{"mask_whole",
                 hidtest::vendorCollection(0xFF43, 0x0202, 0x11, 19),
                 0,
                 0xFF43,
                 0x0202,
                 20,
                 20,
                 0,
                 1,
                 0,
                 1,
                 1,
                 {0x11}},
        // Usage Page (Generic Desktop), then a usage that names page 0xFF00 itself.
        Expected{"four_byte_usage",
                 {0x05, 0x01, 0x0B, 0x01, 0x00, 0x00, 0xFF, 0xA1, 0x01, 0xC0},
                 0,
                 0xFF00,
                 1,
                 0,
                 0,
                 0,
                 0,
                 0,
                 0,
                 1,
                 {}},
        // Report size 8 pushed, changed to 1, popped: four inputs of 8 bits.
        Expected{"push_pop",
                 {0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01, 0x75, 0x08, 0x95,
                  0x04, 0xA4, 0x75, 0x01, 0xB4, 0x09, 0x01, 0x81, 0x02, 0xC0},
                 0,
                 0xFF00,
                 1,
                 5,
                 0,
                 1,
                 0,
                 0,
                 0,
                 1,
                 {}},
        // A long item with three data bytes in front.
        Expected{"long_item_skipped",
                 hidtest::concat({{0xFE, 0x03, 0x42, 0x01, 0x02, 0x03},
                                  hidtest::vendorCollection(0xFF00, 2, 0x11, 19)}),
                 0,
                 0xFF00,
                 2,
                 20,
                 20,
                 0,
                 1,
                 0,
                 1,
                 1,
                 {0x11}}),
    [](const auto& p) { return std::string(p.param.name); });

struct Malformed {
    const char* name;
    Bytes bytes;
    const char* error;
};

void PrintTo(const Malformed& m, std::ostream* os) {
    *os << m.name;
}

class MalformedDescriptor : public ::testing::TestWithParam<Malformed> {};

TEST_P(MalformedDescriptor, IsRefusedWithItsReason) {
    ReportDescriptor rd;
    std::string error;
    EXPECT_FALSE(devio::hid::parseReportDescriptor(GetParam().bytes, rd, error));
    EXPECT_EQ(error, GetParam().error);
}

Bytes nested(std::size_t depth) {
    Bytes d;
    for (std::size_t i = 0; i < depth; ++i) d.insert(d.end(), {0xA1, 0x00});
    for (std::size_t i = 0; i < depth; ++i) d.push_back(0xC0);
    return d;
}

Bytes repeated(const Bytes& unit, std::size_t times, Bytes prefix = {}, Bytes suffix = {}) {
    for (std::size_t i = 0; i < times; ++i) prefix.insert(prefix.end(), unit.begin(), unit.end());
    prefix.insert(prefix.end(), suffix.begin(), suffix.end());
    return prefix;
}

INSTANTIATE_TEST_SUITE_P(
    Hostile, MalformedDescriptor,
    ::testing::Values(
        Malformed{"short_item_cut", {0x06, 0x00}, "truncated item"},
        Malformed{"four_byte_item_cut", {0x0B, 0x01, 0x00, 0x00}, "truncated item"},
        Malformed{"long_item_header_cut", {0xFE, 0x05}, "truncated item"},
        Malformed{"long_item_data_cut", {0xFE, 0x05, 0x10, 0x01, 0x02}, "truncated item"},
        Malformed{"extra_end_collection", hidtest::concat({hidtest::kMouse, {0xC0}}),
                  "end collection without collection"},
        Malformed{"unclosed_collection", {0x09, 0x01, 0xA1, 0x01}, "collection not closed"},
        Malformed{"too_deep", nested(33), "collections nested too deep"},
        Malformed{"pop_without_push", {0xB4}, "pop without push"},
        Malformed{"push_overflow", Bytes(17, 0xA4), "push nested too deep"},
        Malformed{"report_id_zero", {0x85, 0x00}, "report id 0"},
        Malformed{"report_id_wide", {0x86, 0x00, 0x01}, "report id above 255"},
        Malformed{"report_size_absurd", {0x77, 0xFF, 0xFF, 0xFF, 0xFF}, "report size too large"},
        Malformed{"report_count_absurd", {0x97, 0x00, 0x00, 0x01, 0x00}, "report count too large"},
        // 64 items of 256 x 16384 bits each overflow one report long before
        // any 32-bit product would.
        Malformed{"report_too_long",
                  repeated({0x81, 0x02}, 64,
                           {0x09, 0x01, 0xA1, 0x01, 0x76, 0x00, 0x01, 0x96, 0x00, 0x40}, {0xC0}),
                  "report too long"},
        Malformed{"too_many_usages", repeated({0x09, 0x01}, 1100), "too many usages"},
        Malformed{"usage_max_alone", {0x29, 0x05}, "usage minimum without maximum"},
        Malformed{"too_many_collections", repeated({0xA1, 0x01, 0xC0}, 300),
                  "too many collections"},
        Malformed{"too_many_fields", repeated({0x81, 0x01}, 1100, {0xA1, 0x01}, {0xC0}),
                  "too many main items"},
        Malformed{"oversized", Bytes(4097, 0x00), "descriptor too long"}),
    [](const auto& p) { return std::string(p.param.name); });

// Every cut of a real descriptor either parses or is refused; never a read
// past the end (the sanitizer builds watch that).
TEST(Descriptor, EveryPrefixOfRealDescriptorsIsSafe) {
    for (const Bytes& full : {hidtest::kKeyboard, hidtest::kMouse, hidtest::vendorShortAndLong()}) {
        for (std::size_t n = 0; n < full.size(); ++n) {
            const Bytes cut(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n));
            ReportDescriptor rd;
            std::string error;
            if (!devio::hid::parseReportDescriptor(cut, rd, error)) {
                EXPECT_FALSE(error.empty()) << "cut at " << n;
            }
        }
    }
}

TEST(ItemReader, DecodesSignedAndUnsignedWidths) {
    const Bytes d = {0x15, 0x81, 0x26, 0xFF, 0x00, 0x17, 0x00, 0x00, 0x00, 0x80, 0xC0};
    devio::hid::ItemReader r(d);
    devio::hid::Item item;
    ASSERT_EQ(r.next(item), devio::hid::DecodeStatus::Ok);
    EXPECT_EQ(item.sdata, -127);
    ASSERT_EQ(r.next(item), devio::hid::DecodeStatus::Ok);
    EXPECT_EQ(item.udata, 255u);
    EXPECT_EQ(item.sdata, 255);
    ASSERT_EQ(r.next(item), devio::hid::DecodeStatus::Ok);
    EXPECT_EQ(item.size, 4);
    EXPECT_EQ(item.sdata, INT32_MIN);
    ASSERT_EQ(r.next(item), devio::hid::DecodeStatus::Ok);
    EXPECT_EQ(item.type, devio::hid::ItemType::Main);
    EXPECT_EQ(item.tag, 0xC);
    EXPECT_EQ(item.offset, 10u);
    EXPECT_EQ(r.next(item), devio::hid::DecodeStatus::End);
}

}  // namespace
