#pragma once

#include <string>

namespace vxtest {

// Where /dev/kmsg is writable (root), moves the test process into a private
// mount namespace and binds a regular file over /dev/kmsg, so that
// assertion reports made in-process (death tests) land in that file.
void IsolateKernelLog();

// True when writing /dev/kmsg cannot reach the host's kernel log: it is the
// bound file, absent, or not writable to this process.
bool KernelLogIsSafe();

// The file bound over /dev/kmsg, or empty when none is.
const std::string& KernelLogFile();

} // namespace vxtest

// Skips a test that would make an assertion report where it could reach the
// host's kernel log.
#define VXTEST_REQUIRE_SAFE_KERNEL_LOG()                                           \
    do {                                                                           \
        if (!::vxtest::KernelLogIsSafe())                                          \
            GTEST_SKIP() << "/dev/kmsg could not be isolated";                     \
    } while (0)
