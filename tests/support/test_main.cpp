// The test programs' main: keeps assertion reports of the code under test
// out of the host's kernel log before any test runs.
#include <gtest/gtest.h>

#include "support/kernel_log.h"

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    vxtest::IsolateKernelLog();
    return RUN_ALL_TESTS();
}
