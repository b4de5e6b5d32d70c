// Fails an assertion named by the first argument: one of a shared library,
// through the C library's entry points, or one of the program's own.
#include <cerrno>
#include <string>

#include "platform/assert.h"

extern "C" void probe_library_assert(int value);
extern "C" void probe_library_assert_perror(int error);
extern "C" void probe_library_old_assert(void);

int main(int argc, char** argv)
{
    const std::string which = argc == 2 ? argv[1] : "";
    if (which == "assert")
        probe_library_assert(7);
    else if (which == "perror")
        probe_library_assert_perror(ENOENT);
    else if (which == "old")
        probe_library_old_assert();
    CORVID_ASSERT_DETAIL(which != "detail", "lib/platform/singleton", 71, "f()", "Invalid pointer",
                         "Pointer=%p\n", reinterpret_cast<void*>(0x1004));
    return 2;
}
