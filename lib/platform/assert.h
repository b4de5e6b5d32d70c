// Assertion reports. A failed assertion is written to the kernel log
// (/dev/kmsg) at critical level, or to standard error when the kernel log
// cannot be opened, and the process then aborts.
//
// Every assertion site of the program goes through the CORVID_ASSERT macros
// below, with the source path, line, function signature and expression text
// that its report must carry, so that one search lists them all.
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

// Reports and aborts.
[[noreturn]] void AssertionFailed(const char* file, unsigned line, const char* function,
                                  const char* expression) noexcept;

// Prints "name=<decimal> (0x<hex>)\r\n" to standard output.
void DumpNamedValue(const char* name, std::uint64_t value) noexcept;

// Dumps lhs and rhs as "LHS" and "RHS", flushes standard output (the report
// does not, and the abort would lose what is buffered), reports and aborts.
[[noreturn]] void AssertionFailedEqual(std::uint64_t lhs, std::uint64_t rhs, const char* file,
                                       unsigned line, const char* function,
                                       const char* expression) noexcept;

} // namespace corvid

// Checks a condition; on failure reports the given source path, line,
// function signature and expression text, then aborts. The texts are passed
// literally so that reports stay the same whatever the build layout; they
// are evaluated only on failure.
#define CORVID_ASSERT(condition, file, line, function, expression)                 \
    do {                                                                           \
        if (!(condition)) [[unlikely]]                                             \
            ::corvid::AssertionFailed((file), (line), (function), (expression));   \
    } while (0)

// The same with a printf-style detail line in the report.
#define CORVID_ASSERT_DETAIL(condition, file, line, function, expression, ...)     \
    do {                                                                           \
        if (!(condition)) [[unlikely]] {                                           \
            ::corvid::AssertionReportFormatted((file), (line), (function),         \
                                               (expression), __VA_ARGS__);         \
            ::std::abort();                                                        \
        }                                                                          \
    } while (0)

// Checks lhs == rhs; on failure dumps both values on standard output first.
#define CORVID_ASSERT_EQ(lhs, rhs, file, line, function, expression)               \
    do {                                                                           \
        if (!((lhs) == (rhs))) [[unlikely]]                                        \
            ::corvid::AssertionFailedEqual((lhs), (rhs), (file), (line),           \
                                           (function), (expression));              \
    } while (0)
