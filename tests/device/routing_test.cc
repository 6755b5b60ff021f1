// Report classification: reports are injected at the device's read entry or
// sent by the simulated firmware, and the type, the feature hand-over and
// the completion of a pending command are checked.

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "Base/ErrorRecord.h"
#include "DeviceRig.h"

namespace devtest {
namespace {

using devio::IDevice;

Bytes report20(std::initializer_list<std::uint8_t> head) {
    Bytes r(head);
    r.resize(20, 0);
    return r;
}

TEST(Routing, ClassifiesWithoutACommandPending) {
    DeviceRig featured(true);
    DeviceRig plain(false);
    const auto ours = static_cast<std::uint8_t>(featured.dev->swid());
    const std::uint8_t other = ours == 3 ? 4 : 3;
    struct Case {
        const char* what;
        bool feature_based;
        Bytes report;
        bool rewrite;
        IDevice::ReportType type;
        bool to_feature;
    };
    const Case cases[] = {
        {"six bytes", true, {0x10, 0xFF, 0x05, 0x20, 1, 2}, false, IDevice::ReportIgnored, false},
        {"another device index", true, report20({0x11, 0x03, 0x05, 0x20}), false,
         IDevice::ReportIgnored, false},
        {"another index, rewritten", true, report20({0x11, 0x03, 0x05, 0x20}), true,
         IDevice::ReportNotification, true},
        {"1.0 connect notification", true, report20({0x10, 0x03, 0x41, 0x00}), false,
         IDevice::ReportNotification, false},
        {"1.0 notification, no features", false, report20({0x10, 0xFF, 0x4B, 0x00}), false,
         IDevice::ReportNotification, false},
        {"2.0 notification, known feature", true, report20({0x11, 0xFF, 0x05, 0x20, 9}), false,
         IDevice::ReportNotification, true},
        {"2.0 notification, index 0 accepted", true, report20({0x11, 0x00, 0x05, 0x20, 9}), false,
         IDevice::ReportNotification, true},
        {"notification of an unknown feature", true, report20({0x11, 0xFF, 0x07, 0x20}), false,
         IDevice::ReportOtherSoftware, false},
        {"protocol check of another program",
         true,
         {0x10, 0xFF, 0x00, 0x13, 4, 2, 0},
         false,
         IDevice::ReportOtherSoftware,
         false},
        {"another program's answer", true,
         report20({0x11, 0xFF, 0x05, static_cast<std::uint8_t>(0x20 | other), 0x12, 0x34}), false,
         IDevice::ReportOtherSoftware, true},
        {"feature traffic, no features", false, report20({0x11, 0xFF, 0x05, 0x20}), false,
         IDevice::ReportIgnored, false},
        {"root answer, no features", false, report20({0x11, 0xFF, 0x00, 0x1A}), false,
         IDevice::ReportOtherSoftware, false},
        {"register answer, no features", false, report20({0x10, 0xFF, 0x81, 0x00}), false,
         IDevice::ReportOtherSoftware, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        DeviceRig& rig = c.feature_based ? featured : plain;
        rig.rec.clear();
        const std::size_t before = featured.feature->calls().size();
        rig.dev->onRead(c.report, c.rewrite, 0, static_cast<unsigned>(c.report.size()));
        const auto events = rig.rec.events();
        ASSERT_EQ(events.size(), 1u);
        EXPECT_EQ(events[0].type, c.type);
        EXPECT_EQ(events[0].report, c.report) << "subscribers get the report as read";
        const auto calls = featured.feature->calls();
        ASSERT_EQ(calls.size() - before, c.to_feature ? 1u : 0u);
        if (c.to_feature) {
            EXPECT_EQ(calls.back().function, 2u);
            EXPECT_EQ(calls.back().params, Bytes(c.report.begin() + 4, c.report.end()));
            EXPECT_EQ(calls.back().notification, (c.report[3] & 0x0F) == 0);
        }
    }
    EXPECT_EQ(featured.dev->swid(), ours) << "no report here used our software id";
}

// Error reports complete the pending command only in their exact forms.
TEST(Routing, ErrorResponsesInBothForms) {
    struct Case {
        const char* what;
        std::uint8_t index;
        std::uint8_t kind;
        bool completes;
        devio::ErrorCode err;
        IDevice::ReportType type;
    };
    const Case cases[] = {
        {"1.0 form, our index", 0xFF, 0x8F, true, devio::Vxp10Error5, IDevice::ReportResponse},
        {"1.0 form, index 0 for 0xFF", 0x00, 0x8F, true, devio::Vxp10Error5,
         IDevice::ReportResponse},
        {"2.0 form, our index", 0xFF, 0xFF, true, devio::Vxp20Error5, IDevice::ReportResponse},
        {"2.0 form, index 0 for 0xFF", 0x00, 0xFF, false, devio::NoResponse,
         IDevice::ReportOtherSoftware},
        {"1.0 form, another index", 0x02, 0x8F, false, devio::NoResponse, IDevice::ReportIgnored},
    };
    // The cases that complete nothing wait out a whole time-out.
    DeviceRig rig(false, false, kMouseMachine, kQuickExchanges);
    rig.sim("fault mouse drop on");
    const Bytes command = get_feature_0020();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        rig.rec.clear();
        auto waiter = std::async(std::launch::async, [&] {
            Bytes answer;
            const bool ok = rig.dev->sendSynchronousCommandWithoutRetry(command, answer, {}, true);
            return std::make_pair(ok, devio::error_record());
        });
        const auto deadline = Clock::now() + 2s;
        while (rig.rec.sent().empty() && Clock::now() < deadline) std::this_thread::sleep_for(2ms);
        const Bytes error = report20({0x11, c.index, c.kind, command[2], command[3], 0x05});
        rig.dev->onRead(error, false, 0, 20);
        const auto [ok, record] = waiter.get();
        EXPECT_FALSE(ok);
        EXPECT_EQ(record.err, c.err);
        if (c.completes) {
            EXPECT_EQ(record.sys, 5u);
        }
        const auto events = rig.rec.events();
        bool classified = false;
        for (const auto& e : events) {
            if (!e.is_write && e.report == error) {
                classified = true;
                EXPECT_EQ(e.type, c.type);
            }
        }
        EXPECT_TRUE(classified);
    }
}

}  // namespace
}  // namespace devtest
