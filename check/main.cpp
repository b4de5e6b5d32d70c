// vx-hwcheck: the player's start-up hardware check. Run once per boot, as
// root and without arguments; the exit status tells the boot scripts
// whether the player may go on.
#include "check/driver.h"
#include "hardware/context.h"

int main()
{
    LiveContext context;
    return RunChecks(
        [] {
            CheckMemory();
        },
        ShowFailurePattern);
}
