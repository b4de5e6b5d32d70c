#include "check/driver.h"

#include <cstdlib>
#include <exception>

#include "check/hardware_failure.h"
#include "platform/key_value.h"
#include "platform/posix_helpers.h"
#include "platform/trace.h"

void CheckMemory(const std::string& meminfo_path)
{
    const auto meminfo = corvid::ParseKeyValuePairs(corvid::ReadWholeFile(meminfo_path), "\n",
                                                    ": ", " \t");
    const auto total = meminfo.find("MemTotal");
    if (total == meminfo.end())
        throw HardwareFailure("Can't determine memory configuration", ERROR_LED_MEMORY);
    const unsigned long kilobytes = std::strtoul(total->second.c_str(), nullptr, 0);
    if (kilobytes > 204799)
        return;
    corvid::PrintError("Insufficient memory detected: {}KB.\n", kilobytes);
    throw HardwareFailure("Insufficient memory detected", ERROR_LED_MEMORY);
}

namespace {

// Showing the pattern must never turn the handler's status into a crash of
// its own: a display that cannot be shown is reported and left.
void ShowGuarded(const FailureDisplay& display, ErrorLedPattern pattern) noexcept
{
    try {
        display(pattern);
    } catch (const std::exception& e) {
        corvid::PrintError("Unable to show the error LED pattern: {}\n", e.what());
    } catch (...) {
        corvid::PrintError("Unable to show the error LED pattern: Unknown exception\n");
    }
}

} // namespace

int RunChecks(const std::function<void()>& steps, const FailureDisplay& display)
{
    try {
        steps();
    } catch (const HardwareFailure& e) {
        corvid::PrintError("ERROR: {}\n", e.what());
        ShowGuarded(display, e.GetPattern());
        return CHECK_HARDWARE_FAILURE;
    } catch (const std::exception& e) {
        corvid::PrintError("ERROR: {}\n", e.what());
        ShowGuarded(display, ERROR_LED_MEMORY);
        return CHECK_UNEXPECTED_FAILURE;
    } catch (...) {
        corvid::PrintError("ERROR: Unknown exception\n");
        ShowGuarded(display, ERROR_LED_MEMORY);
        return CHECK_UNEXPECTED_FAILURE;
    }
    return CHECK_PASSED;
}

void ShowFailurePattern(ErrorLedPattern /*pattern*/)
{
    // The player's LED blink code is shown here once the LED driver is part
    // of the program; until then a failure is reported by its message and
    // exit status alone.
}
