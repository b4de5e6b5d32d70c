#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "check/driver.h"
#include "check/hardware_failure.h"
#include "platform/posix_helpers.h"
#include "support/fake_context.h"

namespace {

struct Outcome {
    int status;
    std::string err;
    std::vector<int> shown;
};

Outcome RunFrame(const std::function<void()>& steps, bool display_fails = false)
{
    Outcome outcome;
    testing::internal::CaptureStderr();
    outcome.status = RunChecks(steps, [&](ErrorLedPattern pattern) {
        outcome.shown.push_back(pattern);
        if (display_fails)
            throw corvid::ErrnoException(2, "/dev/input/veltrix-gpio");
    });
    outcome.err = testing::internal::GetCapturedStderr();
    return outcome;
}

TEST(RunChecks, StatusMessageAndPatternPerKindOfFailure)
{
    const Outcome passed = RunFrame([] {});
    EXPECT_EQ(passed.status, 0);
    EXPECT_EQ(passed.err, "");
    EXPECT_TRUE(passed.shown.empty());

    const Outcome hardware = RunFrame([] { throw HardwareFailure("Ethernet device not found", ERROR_LED_ETHERNET); });
    EXPECT_EQ(hardware.status, 1);
    EXPECT_EQ(hardware.err, "ERROR: Ethernet device not found\n");
    EXPECT_EQ(hardware.shown, std::vector<int>{7});

    const Outcome standard = RunFrame([] { throw std::out_of_range("map::at"); });
    EXPECT_EQ(standard.status, 2);
    EXPECT_EQ(standard.err, "ERROR: map::at\n");
    EXPECT_EQ(standard.shown, std::vector<int>{2});

    const Outcome unknown = RunFrame([] { throw 42; });
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.err, "ERROR: Unknown exception\n");
    EXPECT_EQ(unknown.shown, std::vector<int>{2});
}

TEST(RunChecks, PatternThatCannotBeShownKeepsTheStatus)
{
    const Outcome hardware = RunFrame([] { throw HardwareFailure("Insufficient memory detected", ERROR_LED_GENERAL); }, true);
    EXPECT_EQ(hardware.status, 1);
    EXPECT_EQ(hardware.err,
              "ERROR: Insufficient memory detected\n"
              "Unable to show the error LED pattern: "
              "/dev/input/veltrix-gpio: No such file or directory (errno 2)\n");
    EXPECT_EQ(RunFrame([] { throw 1; }, true).status, 2);
}

// The memory check on a meminfo text: the failure message or "", and
// standard error.
std::pair<std::string, std::string> CheckMemoryOf(const std::string& meminfo)
{
    FakeContext context;
    context.WriteFile("/proc/meminfo", meminfo);
    testing::internal::CaptureStderr();
    std::string failure;
    try {
        CheckMemory();
    } catch (const HardwareFailure& e) {
        EXPECT_EQ(e.GetPattern(), ERROR_LED_GENERAL);
        failure = e.what();
    }
    return {failure, testing::internal::GetCapturedStderr()};
}

TEST(CheckMemory, ThresholdIs200MiBReadLikeStrtoulInBaseZero)
{
    using Result = std::pair<std::string, std::string>;
    const Result passed{"", ""};
    const Result low{"Insufficient memory detected", "Insufficient memory detected: 204799KB.\n"};
    EXPECT_EQ(CheckMemoryOf("MemTotal:         204800 kB\nMemFree: 1 kB\n"), passed);
    EXPECT_EQ(CheckMemoryOf("MemFree: 1 kB\nMemTotal:  204799 kB\n"), low);
    EXPECT_EQ(CheckMemoryOf("MemTotal: 0x32000 kB\n"), passed);   // 204800
    EXPECT_EQ(CheckMemoryOf("MemTotal: 0617777 kB\n"), low);      // 204799 in octal
    EXPECT_EQ(CheckMemoryOf("MemTotal:\tkB\n").second, "Insufficient memory detected: 0KB.\n");
    for (const char* text : {"MemFree: 1 kB\nMemTotalx: 204800 kB\n", ""})
        EXPECT_EQ(CheckMemoryOf(text), Result("Can't determine memory configuration", ""));
}

} // namespace
