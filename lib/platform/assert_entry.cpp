// The C library's assertion entry points, replaced for the whole process:
// every assert() — in this program and in the shared libraries it loads —
// is reported like the program's own assertions, then aborts.
#include <cstdlib>
#include <cstring>

#include "platform/assert.h"

extern "C" {

[[noreturn]] __attribute__((visibility("default"))) void
__assert_fail(const char* expression, const char* file, unsigned int line,
              const char* function) noexcept
{
    corvid::AssertionReport(file, line, function, expression);
    std::abort();
}

[[noreturn]] __attribute__((visibility("default"))) void
__assert_perror_fail(int error, const char* file, unsigned int line,
                     const char* function) noexcept
{
    corvid::AssertionReport(file, line, function, std::strerror(error));
    std::abort();
}

[[noreturn]] __attribute__((visibility("default"))) void
__assert(const char* expression, const char* file, int line) noexcept
{
    corvid::AssertionReport(file, static_cast<unsigned>(line), "UNKNOWN", expression);
    std::abort();
}

} // extern "C"
