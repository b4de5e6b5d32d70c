// Fails an assertion named by the first argument: one of a shared library
// (through the C library's entry points) or one of the program's own.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/assert.h"

extern "C" {
void probe_library_assert(int value);
void probe_library_assert_perror(int error);
void probe_library_old_assert(void);
}

int main(int argc, char** argv)
{
    const char* which = argc == 2 ? argv[1] : "";
    if (std::strcmp(which, "assert") == 0)
        probe_library_assert(7);
    else if (std::strcmp(which, "perror") == 0)
        probe_library_assert_perror(ENOENT);
    else if (std::strcmp(which, "old") == 0)
        probe_library_old_assert();
    else if (std::strcmp(which, "own") == 0)
        CORVID_ASSERT(argc == 0, "lib/hardware/leds", 168,
                      "bool ShowLedErrorPattern(ErrorLedPattern, unsigned int)", "pattern > 0");
    else if (std::strcmp(which, "detail") == 0)
        CORVID_ASSERT_DETAIL(argc == 0, "lib/platform/singleton", 71, "f()", "Invalid pointer",
                             "Pointer=%p\n", reinterpret_cast<void*>(0x1004));
    return 2;
}
