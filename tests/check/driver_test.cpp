// The check's frame and steps; the whole program runs on the simulated player.
#include <gtest/gtest.h>

#include "check/driver.h"
#include "check/hardware_failure.h"
#include "support/fake_context.h"

namespace {

// The status, standard error and the patterns shown, as "1|ERROR: ...\n|7,";
// the display fails as display_failure does, when given.
std::string RunFrame(const std::function<void()>& steps, const std::function<void()>& display_failure = {})
{
    std::string shown;
    testing::internal::CaptureStderr();
    const int status = RunChecks(steps, [&](ErrorLedPattern pattern) {
        shown += std::to_string(pattern) + ",";
        if (display_failure)
            display_failure();
    });
    return std::to_string(status) + "|" + testing::internal::GetCapturedStderr() + "|" + shown;
}

TEST(RunChecks, StatusMessageAndPatternPerKindOfFailure)
{
    const auto ethernet = [] { throw HardwareFailure("Ethernet device not found", ERROR_LED_ETHERNET); };
    EXPECT_EQ(RunFrame(ethernet), "1|ERROR: Ethernet device not found\n|7,");
    EXPECT_EQ(RunFrame([] { throw std::out_of_range("map::at"); }), "2|ERROR: map::at\n|2,");
    EXPECT_EQ(RunFrame([] { throw 42; }), "2|ERROR: Unknown exception\n|2,");
    // A pattern that cannot be shown keeps the status, and says why after
    // the handler's own line (with an exception's text: the simulated
    // player's memory-short and flash-read-error-devid).
    EXPECT_EQ(RunFrame(ethernet, [] { throw 7; }),
              "1|ERROR: Ethernet device not found\nUnable to show the error LED pattern: Unknown exception\n|7,");
}

TEST(CheckMemory, ThresholdIs200MiBReadLikeStrtoulInBaseZero)
{
    const std::string low = "Insufficient memory detected 2|Insufficient memory detected: 204799KB.\n";
    const std::pair<const char*, std::string> cases[] = {
        {"MemTotal:         204800 kB\nMemFree: 1 kB\n", "passed|"},
        {"MemFree: 1 kB\nMemTotal:  204799 kB\n", low},
        {"MemTotal: 0x32000 kB\n", "passed|"}, // 204800
        {"MemTotal: 0617777 kB\n", low},       // 204799 in octal
        {"MemTotal:\tkB\n", "Insufficient memory detected 2|Insufficient memory detected: 0KB.\n"},
        {"MemFree: 1 kB\nMemTotalx: 204800 kB\n", "Can't determine memory configuration 2|"},
        {"", "Can't determine memory configuration 2|"},
    };
    for (const auto& [meminfo, expected] : cases) {
        FakeContext context;
        context.WriteFile("/proc/meminfo", meminfo);
        testing::internal::CaptureStderr();
        std::string failure = "passed"; // or the failure's message and pattern
        try {
            CheckMemory();
        } catch (const HardwareFailure& e) {
            failure = e.what() + std::string(" ") + std::to_string(e.GetPattern());
        }
        EXPECT_EQ(failure + "|" + testing::internal::GetCapturedStderr(), expected) << meminfo;
    }
}

} // namespace
