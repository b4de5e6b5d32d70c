// Loads a shared library and lets one of its assertions fail, as named by
// the first argument.
#include <cerrno>
#include <cstdio>
#include <cstring>

extern "C" {
void probe_library_assert(int value);
void probe_library_assert_perror(int error);
void probe_library_old_assert(void);
}

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    if (std::strcmp(argv[1], "assert") == 0)
        probe_library_assert(7);
    else if (std::strcmp(argv[1], "perror") == 0)
        probe_library_assert_perror(ENOENT);
    else if (std::strcmp(argv[1], "old") == 0)
        probe_library_old_assert();
    else
        return 2;
    return 0;
}
