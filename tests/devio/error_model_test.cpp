#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "DevioException.h"
#include "ErrorRecord.h"

namespace devio {
namespace {

TEST(ErrorModel, RecordBelongsToOneThreadAndSurvivesSuccess) {
    set_error(NoResponse, "first", 7);
    ErrorRecord seen_elsewhere;
    std::thread other([&] {
        seen_elsewhere = error_record();
        set_error(DeviceRemoved, "other thread", 9);
    });
    other.join();
    // A new thread starts clean and writes only its own record.
    EXPECT_EQ(seen_elsewhere.err, Success);
    EXPECT_EQ(seen_elsewhere.str, nullptr);
    EXPECT_EQ(error_record().err, NoResponse);
    EXPECT_STREQ(error_record().str, "first");
    EXPECT_EQ(error_record().sys, 7u);

    // Successes never clear it: the caller reads it only after a failure.
    EXPECT_TRUE(contain_platform_errors([] { return true; }));
    EXPECT_EQ(error_record().err, NoResponse);
}

TEST(ErrorModel, PlatformExceptionEndsAsRecordAndFalse) {
    set_error(Success);
    const bool result = contain_platform_errors([]() -> bool {
        throw DevioException("window thread gone", WindowCreateFailed, "could not create window",
                             1400);
    });
    EXPECT_FALSE(result);
    EXPECT_EQ(error_record().err, WindowCreateFailed);
    EXPECT_STREQ(error_record().str, "could not create window");
    EXPECT_EQ(error_record().sys, 1400u);

    // Other exceptions are not ours to swallow.
    EXPECT_THROW(contain_platform_errors([]() -> bool { throw std::logic_error("bug"); }),
                 std::logic_error);
}

TEST(ErrorModel, ExceptionCopyKeepsTheWholeTriple) {
    const DevioException original(SetupApiFailed, "SetupDiGetClassDevs failed", 5);
    const DevioException copy(original);  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(copy.err, static_cast<std::uint32_t>(SetupApiFailed));
    EXPECT_STREQ(copy.str, "SetupDiGetClassDevs failed");
    EXPECT_EQ(copy.sys, 5u);
    EXPECT_STREQ(copy.what(), "SetupDiGetClassDevs failed");
    // Caught as the standard runtime error too, with its text.
    try {
        throw copy;
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "SetupDiGetClassDevs failed");
    }
}

}  // namespace
}  // namespace devio
