#include "platform/assert.h"

#include "platform/handles.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace corvid {
namespace {

// The report proper; format may be null for the plain report.
void Report(const char* file, unsigned line, const char* function, const char* expression,
            const char* format, std::va_list* args) noexcept
{
    if (const UniqueFile log{std::fopen(KMSG_PATH, "ae")}) {
        std::FILE* kmsg = log.Get();
        if (format) {
            std::fprintf(kmsg, "<2>User space assert from %d: %s\n", getpid(), expression);
            std::vfprintf(kmsg, format, *args);
        } else {
            std::fprintf(kmsg, "<2>User space assert from process %d: %s\n", getpid(), expression);
        }
        std::fprintf(kmsg, "ASSERT Executing %s:%u:%s\n", file, line, function);
        return; // closing the stream flushes the records
    }
    std::fflush(stdout);
    if (format) {
        std::fprintf(stderr, "\r\nASSERT FAILED: %s\r\n", expression);
        std::vfprintf(stderr, format, *args);
    } else {
        std::fprintf(stderr, "\r\nASSERT FAILED: %s", expression);
    }
    std::fprintf(stderr, "\r\n%s:%u:%s\r\n", file, line, function);
    std::fprintf(stderr, "\r\n");
}

} // namespace

void AssertionReport(const char* file, unsigned line, const char* function,
                     const char* expression) noexcept
{
    Report(file, line, function, expression, nullptr, nullptr);
}

void AssertionReportFormatted(const char* file, unsigned line, const char* function,
                              const char* expression, const char* format, ...) noexcept
{
    std::va_list args;
    va_start(args, format);
    Report(file, line, function, expression, format, &args);
    va_end(args);
}

void AssertionFailed(const char* file, unsigned line, const char* function,
                     const char* expression) noexcept
{
    AssertionReport(file, line, function, expression);
    std::abort();
}

void AssertionFailedEqual(std::uint64_t lhs, std::uint64_t rhs, const char* file, unsigned line,
                          const char* function, const char* expression) noexcept
{
    DumpNamedValue("LHS", lhs);
    DumpNamedValue("RHS", rhs);
    std::fflush(stdout);
    AssertionFailed(file, line, function, expression);
}

void DumpNamedValue(const char* name, std::uint64_t value) noexcept
{
    std::printf("%s=%" PRIu64 " (0x%" PRIx64 ")\r\n", name, value, value);
}

} // namespace corvid
