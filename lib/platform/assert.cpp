#include "platform/assert.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace corvid {
namespace {

// The report proper; format may be null for the plain report.
void Report(const char* kmsg_path, const char* file, unsigned line, const char* function,
            const char* expression, const char* format, std::va_list* args) noexcept
{
    if (std::FILE* kmsg = std::fopen(kmsg_path, "ae")) {
        if (format) {
            std::fprintf(kmsg, "<2>User space assert from %d: %s\n", getpid(), expression);
            std::vfprintf(kmsg, format, *args);
        } else {
            std::fprintf(kmsg, "<2>User space assert from process %d: %s\n", getpid(), expression);
        }
        std::fprintf(kmsg, "ASSERT Executing %s:%u:%s\n", file, line, function);
        std::fclose(kmsg);
        return;
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

void AssertionReportTo(const char* kmsg_path, const char* file, unsigned line,
                       const char* function, const char* expression) noexcept
{
    Report(kmsg_path, file, line, function, expression, nullptr, nullptr);
}

void AssertionReportFormattedTo(const char* kmsg_path, const char* file, unsigned line,
                                const char* function, const char* expression,
                                const char* format, ...) noexcept
{
    std::va_list args;
    va_start(args, format);
    Report(kmsg_path, file, line, function, expression, format, &args);
    va_end(args);
}

void AssertionReport(const char* file, unsigned line, const char* function,
                     const char* expression) noexcept
{
    Report(KMSG_PATH, file, line, function, expression, nullptr, nullptr);
}

void AssertionReportFormatted(const char* file, unsigned line, const char* function,
                              const char* expression, const char* format, ...) noexcept
{
    std::va_list args;
    va_start(args, format);
    Report(KMSG_PATH, file, line, function, expression, format, &args);
    va_end(args);
}

void AssertionFailed(const char* file, unsigned line, const char* function,
                     const char* expression) noexcept
{
    AssertionReport(file, line, function, expression);
    std::abort();
}

void DumpNamedValue(const char* name, std::uint64_t value) noexcept
{
    std::printf("%s=%" PRIu64 " (0x%" PRIx64 ")\r\n", name, value, value);
}

} // namespace corvid
