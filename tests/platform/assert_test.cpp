// Assertion reports: to the kernel log, and to standard error where the
// kernel log cannot be opened; the C library's entry points replaced for the
// whole process, shared libraries included.
#include <unistd.h>

#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "platform/assert.h"
#include "support/kernel_log.h"
#include "support/programs.h"

namespace {

const std::string LED = "lib/hardware/leds:168:bool ShowLedErrorPattern(ErrorLedPattern, unsigned int)";

TEST(AssertionReport, KernelLogRecordsAndDump)
{
    if (vxtest::KernelLogFile().empty())
        GTEST_SKIP() << "needs the kernel log isolated in a file (root)";
    const std::size_t before = vxtest::ReadFile(vxtest::KernelLogFile()).size();
    corvid::AssertionReport("lib/hardware/leds", 168,
                            "bool ShowLedErrorPattern(ErrorLedPattern, unsigned int)", "pattern > 0");
    corvid::AssertionReportFormatted("lib/platform/singleton", 71, "f()", "Invalid pointer",
                                     "Pointer=%p\n", reinterpret_cast<void*>(0x1004));
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(vxtest::ReadFile(vxtest::KernelLogFile()).substr(before),
              "<2>User space assert from process " + pid + ": pattern > 0\n"
              "ASSERT Executing " + LED + "\n"
              "<2>User space assert from " + pid + ": Invalid pointer\n"
              "Pointer=0x1004\n"
              "ASSERT Executing lib/platform/singleton:71:f()\n");

    testing::internal::CaptureStdout();
    corvid::DumpNamedValue("RHS", 0xFFFFFFFFFFFFFFFFULL);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "RHS=18446744073709551615 (0xffffffffffffffff)\r\n");
}

TEST(AssertionReport, FallsBackToStandardErrorAndAborts)
{
    VXTEST_REQUIRE_SANDBOX();
    const auto run = [](const char* which) {
        vxtest::Sandbox sandbox;
        sandbox.BindContent("/dev/kmsg", "", 0000);
        sandbox.DropFilePermissionOverride();
        return sandbox.Run(VX_ASSERT_PROBE_PATH, {which});
    };
    const vxtest::RunResult own = run("own");
    EXPECT_EQ(own.signal, SIGABRT);
    EXPECT_EQ(own.err, "\r\nASSERT FAILED: pattern > 0\r\n" + LED + "\r\n\r\n");
    EXPECT_EQ(run("detail").err, "\r\nASSERT FAILED: Invalid pointer\r\nPointer=0x1004\n"
                                 "\r\nlib/platform/singleton:71:f()\r\n\r\n");
}

TEST(AssertionEntryPoints, ReplaceTheCLibraryForSharedLibraries)
{
    VXTEST_REQUIRE_SANDBOX();
    const std::string library = VX_SOURCE_DIR "/tests/platform/probe/failing_library.c";
#ifdef __clang__ // the C library's assert() passes the function as the compiler names it
    const std::string assert_fn = "void probe_library_assert(int)";
    const std::string perror_fn = "void probe_library_assert_perror(int)";
#else
    const std::string assert_fn = "probe_library_assert", perror_fn = "probe_library_assert_perror";
#endif
    const std::pair<const char*, std::string> cases[] = {
        {"assert", ": value == 42\nASSERT Executing " + library + ":12:" + assert_fn + "\n"},
        {"perror", ": No such file or directory\nASSERT Executing " + library + ":17:" + perror_fn + "\n"},
        {"old", ": old style\nASSERT Executing failing_library.c:17:UNKNOWN\n"},
    };
    for (const auto& [which, expected] : cases) {
        vxtest::Sandbox sandbox;
        const vxtest::RunResult result = sandbox.Run(VX_ASSERT_PROBE_PATH, {which});
        EXPECT_EQ(result.signal, SIGABRT) << which;
        EXPECT_EQ(result.err, "") << which;
        const std::string log = sandbox.KernelLog();
        EXPECT_EQ(log.rfind("<2>User space assert from process ", 0), 0u) << log;
        EXPECT_NE(log.find(expected), std::string::npos) << log;
    }
}

} // namespace
