// vx-hwcheck: the player's start-up hardware check. Run once per boot, as
// root and without arguments; the exit status tells the boot scripts
// whether the player may go on.
#include <csignal>

#include "check/driver.h"
#include "check/startup_pass.h"
#include "hardware/context.h"
#include "hardware/hardware_config.h"

int main()
{
    // Whatever reads the check's output may go away (the boot-splash display,
    // the log reader behind standard error); a write to it then fails with
    // EPIPE, reported or thrown like any failed write, instead of ending the
    // check before its blink code and status.
    std::signal(SIGPIPE, SIG_IGN);
    LiveContext context;
    // Step 1, outside the handlers: an exception here ends the process.
    HardwareConfig config;
    return RunChecks([] { RunStartupPass(WriteIssueFile); }, ShowFailurePattern);
}
