// Assertion reports. A failed assertion is written to the kernel log
// (/dev/kmsg) at critical level, or to standard error when the kernel log
// cannot be opened, and the process then aborts.
#pragma once

#include <cstdint>

namespace corvid {

// Path of the kernel log device that reports go to.
inline constexpr const char* KMSG_PATH = "/dev/kmsg";

// Writes the report of a failed assertion and returns; the caller aborts.
void AssertionReport(const char* file, unsigned line, const char* function,
                     const char* expression) noexcept;

// The same with a printf-style detail line between the two report lines.
void AssertionReportFormatted(const char* file, unsigned line, const char* function,
                              const char* expression, const char* format, ...) noexcept
    __attribute__((format(printf, 5, 6)));

// As above, writing to an explicit kernel-log path (for tests).
void AssertionReportTo(const char* kmsg_path, const char* file, unsigned line,
                       const char* function, const char* expression) noexcept;
void AssertionReportFormattedTo(const char* kmsg_path, const char* file, unsigned line,
                                const char* function, const char* expression,
                                const char* format, ...) noexcept
    __attribute__((format(printf, 6, 7)));

// Reports and aborts.
[[noreturn]] void AssertionFailed(const char* file, unsigned line, const char* function,
                                  const char* expression) noexcept;

// Prints "name=<decimal> (0x<hex>)\r\n" to standard output.
void DumpNamedValue(const char* name, std::uint64_t value) noexcept;

} // namespace corvid

// Checks a condition; on failure reports the given source path, line,
// function signature and expression text, then aborts. The texts are passed
// literally so that reports stay the same whatever the build layout.
#define CORVID_ASSERT(condition, file, line, function, expression)                 \
    do {                                                                           \
        if (!(condition)) [[unlikely]]                                             \
            ::corvid::AssertionFailed((file), (line), (function), (expression));   \
    } while (0)
