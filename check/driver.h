// The start-up check's frame: the checks, their outermost handlers and the
// exit status.
#pragma once

#include <functional>

#include "hardware/leds.h"

// Exit statuses of the check.
enum CheckStatus : int {
    CHECK_PASSED = 0,
    CHECK_HARDWARE_FAILURE = 1,
    CHECK_UNEXPECTED_FAILURE = 2,
};

// Fails with HardwareFailure (pattern 2) unless MemTotal in /proc/meminfo
// (of the process's context) is at least 204800 KB. A file that cannot be
// read throws ErrnoException.
void CheckMemory();

// Shows a failure's LED pattern. It may never return (the pattern can end in
// a deliberate crash); it may also throw when the pattern cannot be shown.
using FailureDisplay = std::function<void(ErrorLedPattern)>;

// Reports a failure before its pattern is shown: the check prints
// "ERROR: <what>\n" (PrintFailure).
using FailureReport = std::function<void(const char* what)>;
void PrintFailure(const char* what);

// Runs steps inside the outermost handlers: a HardwareFailure gives status 1
// and its own pattern, any other exception status 2 and pattern 2 ("Unknown
// exception" for one that is not a standard exception). Each handler reports
// the failure, then shows the pattern; a display that cannot be shown is
// reported and the status returned all the same.
int RunChecks(const std::function<void()>& steps, const FailureDisplay& display,
              const FailureReport& report = PrintFailure);

// The display of the real player: the error LED blink code with the
// check's flags (crash after seventeen rounds, the button watched from the
// second round on), so a failing run normally ends in the deliberate crash.
void ShowFailurePattern(ErrorLedPattern pattern);
