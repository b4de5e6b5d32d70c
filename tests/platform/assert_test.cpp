// Assertion reports, to the kernel log (whole records in the singleton's
// checks) or else to standard error; the C library's entry points replaced
// for the whole process, libraries included.
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <regex>

#include <gtest/gtest.h>

#include "platform/assert.h"
#include "platform/singleton.h"
#include "support/programs.h"

class SingletonProbe : public corvid::Singleton<SingletonProbe> {
public:
    static void Force(std::uintptr_t address) { sm_instance = reinterpret_cast<Singleton*>(address); }
    std::uint64_t m_value = 0; // real instances have members, so are aligned
};

namespace corvid_test {
struct Nested : corvid::Singleton<Nested> {
    std::uint64_t m_value = 0;
};
} // namespace corvid_test

namespace {

const std::string LIBRARY = VX_SOURCE_DIR "/tests/platform/probe/failing_library.c";

#ifdef __clang__ // the C library's assert() passes the function as the compiler spells it
const std::string ASSERT_FN = "void probe_library_assert(int)";
const std::string PERROR_FN = "void probe_library_assert_perror(int)";
#else
const std::string ASSERT_FN = "probe_library_assert", PERROR_FN = "probe_library_assert_perror";
#endif

TEST(AssertionReport, FallsBackToStandardErrorAndAborts)
{
    VXTEST_REQUIRE_ISOLATION();
    const std::pair<const char*, std::string> cases[] = {
        {"assert", "\r\nASSERT FAILED: value == 42\r\n" + LIBRARY + ":11:" + ASSERT_FN + "\r\n\r\n"},
        {"detail", "\r\nASSERT FAILED: Invalid pointer\r\nPointer=0x1004\n"
                   "\r\nlib/platform/singleton:71:f()\r\n\r\n"},
    };
    for (const auto& [which, expected] : cases) {
        vxtest::Sandbox sandbox;
        sandbox.BindContent("/dev/kmsg", "", 0000);
        sandbox.drop_file_permission_override = true;
        const vxtest::RunResult result = vxtest::Run(vxtest::Built(VX_ASSERT_PROBE_PATH, {which}), {}, &sandbox);
        EXPECT_EQ(result.signal, SIGABRT) << which;
        EXPECT_EQ(result.err, expected);
    }
}

TEST(AssertionEntryPoints, ReplaceTheCLibraryForSharedLibraries)
{
    VXTEST_REQUIRE_ISOLATION();
    const std::pair<const char*, std::string> cases[] = {
        {"assert", ": value == 42\nASSERT Executing " + LIBRARY + ":11:" + ASSERT_FN + "\n"},
        {"perror", ": No such file or directory\nASSERT Executing " + LIBRARY + ":16:" + PERROR_FN + "\n"},
        {"old", ": old style\nASSERT Executing failing_library.c:17:UNKNOWN\n"},
    };
    for (const auto& [which, expected] : cases) {
        vxtest::Sandbox sandbox;
        const vxtest::RunResult result = vxtest::Run(vxtest::Built(VX_ASSERT_PROBE_PATH, {which}), {}, &sandbox);
        EXPECT_EQ(result.signal, SIGABRT) << which;
        EXPECT_EQ(result.err, "") << which;
        const std::string log = sandbox.KernelLog();
        EXPECT_EQ(log.rfind("<2>User space assert from process ", 0), 0u) << log;
        EXPECT_NE(log.find(expected), std::string::npos) << log;
    }
}

TEST(Singleton, ChecksItsPointerAndAbortsOnMisuseWithTheSignatureOfTheClass)
{
    SingletonProbe::Force(0x1000); // the lowest pointer taken for a valid one
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(SingletonProbe::GetInstance()), 0x1000u);
    SingletonProbe::Force(0);

    // The whole kernel-log record, with the process number as PID: a plain
    // report, or one with details (without "process").
    VXTEST_REQUIRE_ISOLATION();
    const std::string at = "\nASSERT Executing lib/platform/singleton:";
    const std::string plain = "<2>User space assert from process PID: ";
    const std::string pointer = "<2>User space assert from PID: Invalid pointer\nPointer=";
    const std::string get = at + "71:static T* corvid::Singleton<T>::GetInstance() [with T = SingletonProbe]\n";
    const std::pair<void (*)(), std::string> cases[] = {
        {[] { SingletonProbe::GetInstance(); }, pointer + "(nil)" + get},
        {[] { SingletonProbe::Force(0xFFF); SingletonProbe::GetInstance(); }, pointer + "0xfff" + get},
        {[] { SingletonProbe::Force(0x1004); SingletonProbe::GetInstance(); }, pointer + "0x1004" + get},
        {[] { corvid_test::Nested first, second; },
         plain + "sm_instance == __null" + at + "51:corvid::Singleton<T>::Singleton() [with T = corvid_test::Nested]\n"},
        {[] { SingletonProbe probe; SingletonProbe::Force(0x2000); },
         plain + "sm_instance == this" + at + "58:corvid::Singleton<T>::~Singleton() [with T = SingletonProbe]\n"},
    };
    for (const auto& [statement, expected] : cases) {
        const auto before = vxtest::ReadFile(vxtest::KernelLogFile()).size();
        EXPECT_DEATH(statement(), "");
        EXPECT_EQ(std::regex_replace(vxtest::ReadFile(vxtest::KernelLogFile()).substr(before),
                                     std::regex("^(<2>User space assert from (process )?)[0-9]+"), "$1PID"),
                  expected);
    }
}

} // namespace
