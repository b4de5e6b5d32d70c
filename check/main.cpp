// vx-hwcheck: the player's start-up hardware check. Run once per boot, as
// root and without arguments; the exit status tells the boot scripts
// whether the player may go on.
#include "check/driver.h"
#include "check/startup_pass.h"
#include "hardware/context.h"
#include "hardware/hardware_config.h"

int main()
{
    LiveContext context;
    // Step 1, outside the handlers: an exception here ends the process.
    HardwareConfig config;
    return RunChecks([] { RunStartupPass(WriteIssueFile); }, ShowFailurePattern);
}
