#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "check/driver.h"
#include "check/hardware_failure.h"
#include "platform/posix_helpers.h"
#include "support/sandbox.h"

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
    const Outcome hardware = RunFrame([] { throw HardwareFailure("Insufficient memory detected", ERROR_LED_MEMORY); }, true);
    EXPECT_EQ(hardware.status, 1);
    EXPECT_EQ(hardware.err,
              "ERROR: Insufficient memory detected\n"
              "Unable to show the error LED pattern: "
              "/dev/input/veltrix-gpio: No such file or directory (errno 2)\n");
    EXPECT_EQ(RunFrame([] { throw 1; }, true).status, 2);
}

class CheckMemoryTest : public testing::Test {
protected:
    // Runs the memory check on a meminfo text; returns the failure message
    // or "" and the standard error output.
    std::pair<std::string, std::string> Check(const std::string& meminfo)
    {
        const std::string path = m_dir.WriteFile("meminfo", meminfo);
        testing::internal::CaptureStderr();
        std::string failure;
        try {
            CheckMemory(path);
        } catch (const HardwareFailure& e) {
            EXPECT_EQ(e.GetPattern(), ERROR_LED_MEMORY);
            failure = e.what();
        }
        return {failure, testing::internal::GetCapturedStderr()};
    }
    vxtest::TempDir m_dir;
};

TEST_F(CheckMemoryTest, ThresholdIs200MiB)
{
    EXPECT_EQ(Check("MemTotal:         204800 kB\nMemFree: 1 kB\n"), std::make_pair(std::string(), std::string()));
    EXPECT_EQ(Check("MemFree: 1 kB\nMemTotal:  204799 kB\n"),
              std::make_pair(std::string("Insufficient memory detected"),
                             std::string("Insufficient memory detected: 204799KB.\n")));
}

TEST_F(CheckMemoryTest, NumberIsReadLikeStrtoulInBaseZero)
{
    EXPECT_EQ(Check("MemTotal: 0x32000 kB\n").first, "");  // 204800
    EXPECT_EQ(Check("MemTotal: 0620000 kB\n").first, "");  // 204800 in octal
    EXPECT_EQ(Check("MemTotal: 0617777 kB\n").second, "Insufficient memory detected: 204799KB.\n");
    EXPECT_EQ(Check("MemTotal:\tkB\n").second, "Insufficient memory detected: 0KB.\n");
}

TEST_F(CheckMemoryTest, MissingTotalIsAHardwareFailure)
{
    EXPECT_EQ(Check("MemFree: 1 kB\nMemTotalx: 204800 kB\n"),
              std::make_pair(std::string("Can't determine memory configuration"), std::string()));
    EXPECT_EQ(Check("").first, "Can't determine memory configuration");
}

} // namespace
