// The real vx-hwcheck program in a private mount namespace: what only the
// whole program shows (the memory check itself is tested in driver_test).
#include <string>

#include <gtest/gtest.h>

#include "support/programs.h"

namespace {

// A player whose kernel gives neither a board identity nor a flash table
// nor the GPIO event device: the configuration is read first, outside the
// checks, and reports what it lacks; then the memory check cannot read
// /proc/meminfo, and the blink code cannot be shown: the status stays.
TEST(HwcheckProgram, ConfigurationFirstThenAnUnreadableMeminfo)
{
    VXTEST_REQUIRE_SANDBOX();
    vxtest::Sandbox sandbox;
    sandbox.ProcFile("meminfo", "MemTotal: 999999 kB\n", 0000);
    sandbox.DropFilePermissionOverride();
    const vxtest::RunResult result = sandbox.Run(VX_HWCHECK_PATH);
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_EQ(result.err,
              "<3>Board identity unavailable: /proc/boardid: No such file or directory (errno 2)\n"
              "BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n"
              "SRB not valid. Please run manufacturing test.\n"
              "ERROR: /proc/meminfo: Permission denied (errno 13)\n"
              "Unable to show the error LED pattern: /dev/input/veltrix-gpio: "
              "No such file or directory (errno 2)\n");
    EXPECT_EQ(sandbox.KernelLog(), "");
}

} // namespace
