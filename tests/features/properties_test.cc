// Firmware properties against a simulated device: descriptions and values
// in both types and byte orders that would show a swap, the device's
// clamping and refusal of writes, its own changes, alone and packed, and a
// property that outlives its feature.

#include <gtest/gtest.h>

#include <limits>

#include "FeatureBench.h"
#include "Features/IFeature1F1FFirmwareProperties.h"

namespace devtest {
namespace {

using devio::IFeature1F1FFirmwareProperties;
using Limits = std::numeric_limits<std::int32_t>;

// 1.5 is 0x3FC00000: read with its bytes swapped it would be 0x0000C03F, a
// tiny denormal.
const char* const kProperties = R"("properties": [
    {"name": "dpi", "type": "int", "value": 800, "min": 100, "max": 8000, "flag_a": true},
    {"name": "gain", "type": "float", "value": 1.5, "min": -2.5, "max": 10.25, "flag_b": true},
    {"name": "serial", "type": "int", "value": -5, "writable": false},
    {"name": "trim", "type": "float", "value": 0.1}])";

TEST(FirmwareProperties, DescriptionsValuesAndLimits) {
    FeatureBench bench(deviceMachine(kProperties));
    auto props = bench.load<IFeature1F1FFirmwareProperties>(0x1F1F);
    ASSERT_TRUE(props);
    ASSERT_TRUE(props->LoadProperties());
    ASSERT_EQ(props->PropertyCount(), 4u);
    EXPECT_FALSE(props->Property(4));
    EXPECT_FALSE(props->GetPropertyInfo(nullptr));

    struct Expect {
        const char* name;
        bool flagA, flagB, isInteger;
        std::int32_t value, minimum, maximum;
        float fvalue, fminimum, fmaximum;
    };
    const float fmax = std::numeric_limits<float>::max();
    const Expect expect[] = {
        {"dpi", true, false, true, 800, 100, 8000, 0, 0, 0},
        {"gain", false, true, false, 0, 0, 0, 1.5f, -2.5f, 10.25f},
        {"serial", false, false, true, -5, Limits::min(), Limits::max(), 0, 0, 0},
        {"trim", false, false, false, 0, 0, 0, 0.1f, -fmax, fmax},
    };
    for (std::size_t i = 0; i < std::size(expect); ++i) {
        const Expect& e = expect[i];
        SCOPED_TRACE(e.name);
        auto p = props->Property(i);
        ASSERT_TRUE(p);
        EXPECT_EQ(p->id(), i);
        EXPECT_STREQ(p->name().c_str(), e.name);
        EXPECT_EQ(p->flagA(), e.flagA);
        EXPECT_EQ(p->flagB(), e.flagB);
        EXPECT_EQ(p->size(), 4u);
        EXPECT_EQ(p->isInteger(), e.isInteger);
        EXPECT_EQ(p->isFloat(), !e.isInteger);
        EXPECT_EQ(p->integerValue(), e.value);
        EXPECT_EQ(p->integerMinimum(), e.minimum);
        EXPECT_EQ(p->integerMaximum(), e.maximum);
        EXPECT_EQ(p->floatValue(), e.fvalue);
        EXPECT_EQ(p->floatMinimum(), e.fminimum);
        EXPECT_EQ(p->floatMaximum(), e.fmaximum);
    }
}

// The parameters of the last report sent, bytes 4 to `end`.
Bytes lastParams(FeatureBench& bench, std::size_t end) {
    const Bytes r = bench.rig.rec.sent().back();
    return Bytes(r.begin() + 4, r.begin() + static_cast<std::ptrdiff_t>(end));
}

TEST(FirmwareProperties, WritesRefusalsAndChangesByTheDevice) {
    FeatureBench bench(deviceMachine(kProperties));
    auto props = bench.load<IFeature1F1FFirmwareProperties>(0x1F1F);
    ASSERT_TRUE(props && props->LoadProperties());
    auto dpi = props->Property(0), gain = props->Property(1), serial = props->Property(2),
         trim = props->Property(3);

    // Values go out low byte first; the device clamps, and its value stays.
    ASSERT_TRUE(dpi->setIntegerValue(9000));
    EXPECT_EQ(lastParams(bench, 11), (Bytes{0, 4, 0x28, 0x23, 0, 0, 0xFF}));
    EXPECT_EQ(dpi->integerValue(), 8000);
    ASSERT_TRUE(gain->setFloatValue(2.75f));
    EXPECT_EQ(lastParams(bench, 11), (Bytes{1, 4, 0, 0, 0x30, 0x40, 0xFF}));
    ASSERT_TRUE(props->GetPropertyValue(gain.get()));
    EXPECT_EQ(gain->floatValue(), 2.75f);

    // A read-only property: the device's error byte reaches the caller.
    devio::set_error(devio::Success);
    EXPECT_FALSE(serial->setIntegerValue(7));
    EXPECT_EQ(devio::error_record().err, devio::Vxp20Error4);
    EXPECT_EQ(devio::error_record().sys, 4u);
    ASSERT_TRUE(props->GetPropertyValue(serial.get()));
    EXPECT_EQ(serial->integerValue(), -5);

    // Changes by the device: one property alone, a notification of another
    // function, then a packed list (id, unused byte, value) ended by 0xFF.
    EventTrail heard[4];
    for (std::size_t i = 0; i < 4; ++i) {
        ASSERT_TRUE(heard[i].join<devio::IFeature1F1FFirmwareProperty::Notification>(
            props->Property(i), devio::DeliveryDirect));
    }
    bench.rig.sim("property mouse 1 3.25");
    bench.rig.sim("notify mouse 0x1F1F 1 2 0 9 0 0 0");
    bench.rig.sim("notify mouse 0x1F1F 0 0 0x99 0xD2 4 0 0 3 0 0 0 0x80 0x3F 0xFF 2 0 9");
    EXPECT_EQ(heard[0].wait(1).size(), 1u);
    EXPECT_EQ(heard[1].wait(1).size(), 1u);
    EXPECT_EQ(heard[3].wait(1).size(), 1u);
    EXPECT_TRUE(heard[2].wait(0).empty());
    EXPECT_EQ(gain->floatValue(), 3.25f);
    EXPECT_EQ(dpi->integerValue(), 1234);
    EXPECT_EQ(trim->floatValue(), 1.0f);
    EXPECT_EQ(serial->integerValue(), -5);

    // Save and reset carry only the id; the device's reset brings its
    // default back.
    ASSERT_TRUE(dpi->save());
    EXPECT_EQ(lastParams(bench, 6), (Bytes{0, 0xFF}));
    ASSERT_TRUE(gain->reset());
    EXPECT_EQ(bench.rig.rec.sent().back()[3] >> 4, 6);
    ASSERT_TRUE(props->GetPropertyValue(gain.get()));
    EXPECT_EQ(gain->floatValue(), 1.5f);

    // A device one answer behind answers about property 1 when asked about
    // property 0: not an answer, and no error of the device's.
    bench.rig.sim("fault mouse late 1");
    devio::set_error(devio::Success);
    EXPECT_FALSE(props->GetPropertyValue(dpi.get()));
    EXPECT_EQ(devio::error_record().err, devio::Success);
    EXPECT_EQ(dpi->integerValue(), 1234);

    // Once the feature is gone, a property held on to fails its commands.
    props.reset();
    bench.rig.dev->forget();
    EXPECT_FALSE(dpi->save());
    EXPECT_EQ(devio::error_record().err, devio::DeviceRemoved);
}

}  // namespace
}  // namespace devtest
