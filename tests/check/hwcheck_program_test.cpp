// The real vx-hwcheck program in a private mount namespace: what only the
// whole program shows (the memory check itself is tested in driver_test).
#include <string>

#include <gtest/gtest.h>

#include "support/programs.h"

namespace {

TEST(HwcheckProgram, UnreadableMeminfoIsAnUnexpectedFailure)
{
    VXTEST_REQUIRE_SANDBOX();
    vxtest::Sandbox sandbox;
    sandbox.BindContent("/proc/meminfo", "MemTotal: 999999 kB\n", 0000);
    sandbox.DropFilePermissionOverride();
    const vxtest::RunResult result = sandbox.Run(VX_HWCHECK_PATH);
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_EQ(result.err, "ERROR: /proc/meminfo: Permission denied (errno 13)\n");
    EXPECT_EQ(sandbox.KernelLog(), "");
}

} // namespace
