/* A shared library whose assertions go through the C library's entry points. */
#define _GNU_SOURCE
#undef NDEBUG
#include <assert.h>
#include <errno.h>

extern void __assert(const char* expression, const char* file, int line);

void probe_library_assert(int value)
{
    assert(value == 42);
}

void probe_library_assert_perror(int error)
{
    assert_perror(error);
}

void probe_library_old_assert(void)
{
    __assert("old style", "failing_library.c", 17);
}
