// The real vx-hwcheck program, run in a private mount namespace with a
// fixture over /proc/meminfo and a regular file over /dev/kmsg.
#include <string>

#include <gtest/gtest.h>

#include "support/sandbox.h"

namespace {

vxtest::RunResult RunWithMeminfo(vxtest::Sandbox& sandbox, const std::string& meminfo)
{
    sandbox.BindContent("/proc/meminfo", meminfo);
    return sandbox.Run(VX_HWCHECK_PATH);
}

TEST(HwcheckProgram, MemoryBoundary)
{
    VXTEST_REQUIRE_SANDBOX();
    vxtest::Sandbox low;
    const auto failed = RunWithMeminfo(low, "MemTotal:         204799 kB\nMemFree:  100 kB\n");
    EXPECT_EQ(failed.exit_status, 1);
    EXPECT_EQ(failed.err, "Insufficient memory detected: 204799KB.\nERROR: Insufficient memory detected\n");
    EXPECT_EQ(failed.out, "");
    EXPECT_EQ(low.KernelLog(), "");

    vxtest::Sandbox enough;
    const auto passed = RunWithMeminfo(enough, "MemTotal:         204800 kB\nMemFree:  100 kB\n");
    EXPECT_EQ(passed.exit_status, 0);
    EXPECT_EQ(passed.err, "");
}

TEST(HwcheckProgram, NoMemTotalLine)
{
    VXTEST_REQUIRE_SANDBOX();
    vxtest::Sandbox sandbox;
    const auto result = RunWithMeminfo(sandbox, "MemFree:  100 kB\nMemAvailable: 5 kB\n");
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "ERROR: Can't determine memory configuration\n");
}

TEST(HwcheckProgram, UnreadableMeminfoIsAnUnexpectedFailure)
{
    VXTEST_REQUIRE_SANDBOX();
    vxtest::Sandbox sandbox;
    sandbox.BindContent("/proc/meminfo", "MemTotal: 999999 kB\n", 0000);
    sandbox.DropFilePermissionOverride();
    const auto result = sandbox.Run(VX_HWCHECK_PATH);
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_EQ(result.err, "ERROR: /proc/meminfo: Permission denied (errno 13)\n");
}

} // namespace
