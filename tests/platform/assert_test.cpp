#include <unistd.h>

#include <csignal>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "platform/assert.h"
#include "support/kernel_log.h"
#include "support/sandbox.h"

namespace {

std::string Pid()
{
    return std::to_string(getpid());
}

TEST(AssertionReport, KernelLogRecords)
{
    vxtest::TempDir dir;
    const std::string kmsg = dir.WriteFile("kmsg", "");
    corvid::AssertionReportTo(kmsg.c_str(), "lib/hardware/leds", 168,
                              "bool ShowLedErrorPattern(ErrorLedPattern, unsigned int)",
                              "pattern > 0");
    corvid::AssertionReportFormattedTo(kmsg.c_str(), "lib/platform/singleton", 71, "f()",
                                       "Invalid pointer", "Pointer=%p\n", (void*)0x1004);
    EXPECT_EQ(vxtest::ReadFile(kmsg),
              "<2>User space assert from process " + Pid() + ": pattern > 0\n"
              "ASSERT Executing lib/hardware/leds:168:"
              "bool ShowLedErrorPattern(ErrorLedPattern, unsigned int)\n"
              "<2>User space assert from " + Pid() + ": Invalid pointer\n"
              "Pointer=0x1004\n"
              "ASSERT Executing lib/platform/singleton:71:f()\n");
}

TEST(AssertionReport, FallsBackToStandardErrorWithoutKernelLog)
{
    testing::internal::CaptureStderr();
    corvid::AssertionReportTo("/nonexistent/kmsg", "lib/hardware/leds", 168,
                              "bool ShowLedErrorPattern(ErrorLedPattern, unsigned int)",
                              "pattern > 0");
    corvid::AssertionReportFormattedTo("/nonexistent/kmsg", "a", 7, "g()", "x", "detail %d\n", 9);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "\r\nASSERT FAILED: pattern > 0"
              "\r\nlib/hardware/leds:168:bool ShowLedErrorPattern(ErrorLedPattern, unsigned int)\r\n"
              "\r\n"
              "\r\nASSERT FAILED: x\r\n"
              "detail 9\n"
              "\r\na:7:g()\r\n"
              "\r\n");
}

TEST(AssertionReport, NamedValueDump)
{
    testing::internal::CaptureStdout();
    corvid::DumpNamedValue("LHS", 4096);
    corvid::DumpNamedValue("RHS", 0xFFFFFFFFFFFFFFFFULL);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "LHS=4096 (0x1000)\r\nRHS=18446744073709551615 (0xffffffffffffffff)\r\n");
}

// The C library's entry points are replaced for the whole process: an
// assert() inside a shared library is reported like the program's own.
TEST(AssertionEntryPoints, ReplaceTheCLibraryForSharedLibraries)
{
    VXTEST_REQUIRE_SANDBOX();
    struct Case {
        const char* which;
        std::string expected;
    };
    const Case cases[] = {
        {"assert", ": value == 42\nASSERT Executing " VX_SOURCE_DIR
                   "/tests/platform/probe/failing_library.c:12:probe_library_assert\n"},
        {"perror", ": No such file or directory\nASSERT Executing " VX_SOURCE_DIR
                   "/tests/platform/probe/failing_library.c:17:probe_library_assert_perror\n"},
        {"old", ": old style\nASSERT Executing failing_library.c:17:UNKNOWN\n"},
    };
    for (const auto& c : cases) {
        vxtest::Sandbox sandbox;
        const auto result = sandbox.Run(VX_ASSERT_PROBE_PATH, {c.which});
        EXPECT_EQ(result.signal, SIGABRT) << c.which;
        EXPECT_EQ(result.err, "") << c.which;
        const std::string log = sandbox.KernelLog();
        EXPECT_EQ(log.rfind("<2>User space assert from process ", 0), 0u) << log;
        EXPECT_NE(log.find(c.expected), std::string::npos) << log;
    }
}

TEST(AssertionEntryPoints, AbortAfterReporting)
{
    VXTEST_REQUIRE_SAFE_KERNEL_LOG();
    EXPECT_DEATH(corvid::AssertionFailed("lib/x", 1, "void f()", "false"), "");
}

} // namespace
