#include "check/driver.h"

#include <cstdlib>
#include <exception>

#include "check/hardware_failure.h"
#include "hardware/context.h"
#include "platform/key_value.h"
#include "platform/posix_helpers.h"
#include "platform/trace.h"

void CheckMemory()
{
    const auto meminfo = corvid::ParseKeyValuePairs(
        corvid::ReadWholeFile(Context::GetInstance()->Path("/proc/meminfo")), "\n", ": ", " \t");
    const auto total = meminfo.find("MemTotal");
    if (total == meminfo.end())
        throw HardwareFailure("Can't determine memory configuration", ERROR_LED_GENERAL);
    const unsigned long kilobytes = std::strtoul(total->second.c_str(), nullptr, 0);
    if (kilobytes > 204799)
        return;
    corvid::PrintGuarded("Insufficient memory detected: {}KB.\n", kilobytes);
    throw HardwareFailure("Insufficient memory detected", ERROR_LED_GENERAL);
}

namespace {

// Showing the pattern must never turn the handler's status into a crash of
// its own: a display that cannot be shown is reported and left.
void ShowGuarded(const FailureDisplay& display, ErrorLedPattern pattern) noexcept
{
    try {
        display(pattern);
    } catch (const std::exception& e) {
        corvid::PrintGuarded("Unable to show the error LED pattern: {}\n", e.what());
    } catch (...) {
        corvid::PrintGuarded("Unable to show the error LED pattern: Unknown exception\n");
    }
}

} // namespace

void PrintFailure(const char* what)
{
    corvid::PrintGuarded("ERROR: {}\n", what);
}

int RunChecks(const std::function<void()>& steps, const FailureDisplay& display, const FailureReport& report)
{
    try {
        steps();
    } catch (const HardwareFailure& e) {
        report(e.what());
        ShowGuarded(display, e.GetPattern());
        return CHECK_HARDWARE_FAILURE;
    } catch (const std::exception& e) {
        report(e.what());
        ShowGuarded(display, ERROR_LED_GENERAL);
        return CHECK_UNEXPECTED_FAILURE;
    } catch (...) {
        report("Unknown exception");
        ShowGuarded(display, ERROR_LED_GENERAL);
        return CHECK_UNEXPECTED_FAILURE;
    }
    return CHECK_PASSED;
}

void ShowFailurePattern(ErrorLedPattern pattern)
{
    ShowLedErrorPattern(pattern, LED_CHECK_FLAGS);
}
