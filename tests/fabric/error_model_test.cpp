#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "Base/DevioException.h"
#include "Base/ErrorRecord.h"

namespace devio {
namespace {

// The record belongs to one thread, survives successes (the caller reads it
// only after a failure), and is where a platform exception ends.
TEST(ErrorModel, RecordIsPerThreadAndTakesPlatformExceptions) {
    set_error(NoResponse, "first", 7);
    ErrorRecord seen_elsewhere;
    std::thread other([&] {
        seen_elsewhere = error_record();
        set_error(DeviceRemoved, "other thread", 9);
    });
    other.join();
    EXPECT_EQ(seen_elsewhere.err, Success) << "a new thread starts clean";
    EXPECT_EQ(seen_elsewhere.str, nullptr);
    EXPECT_EQ(error_record().err, NoResponse);
    EXPECT_STREQ(error_record().str, "first");
    EXPECT_EQ(error_record().sys, 7u);
    EXPECT_TRUE(contain_platform_errors([] { return true; }));
    EXPECT_EQ(error_record().err, NoResponse);

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

    // Without a text of its own, the exception says its error text.
    try {
        throw DevioException(SetupApiFailed, "SetupDiGetClassDevs failed", 5);
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "SetupDiGetClassDevs failed");
    }
}

}  // namespace
}  // namespace devio
