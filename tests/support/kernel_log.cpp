#include "support/kernel_log.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace vxtest {
namespace {

std::string g_file;
bool g_safe = false;

} // namespace

void IsolateKernelLog()
{
    if (access("/dev/kmsg", F_OK) != 0 || access("/dev/kmsg", W_OK) != 0) {
        g_safe = true;
        return;
    }
    char path[] = "/tmp/vxtest-kmsg.XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0)
        return;
    close(fd);
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(path, "/dev/kmsg", nullptr, MS_BIND, nullptr) != 0) {
        std::fprintf(stderr, "warning: could not isolate /dev/kmsg; assertion tests skip\n");
        unlink(path);
        return;
    }
    // The bind keeps the file reachable; the name can go once the run ends.
    g_file = path;
    std::atexit([] { unlink(g_file.c_str()); });
    g_safe = true;
}

bool KernelLogIsSafe()
{
    return g_safe;
}

const std::string& KernelLogFile()
{
    return g_file;
}

} // namespace vxtest
