#include <cstdint>
#include <functional>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "platform/singleton.h"
#include "support/kernel_log.h"
#include "support/programs.h"

class SingletonProbe : public corvid::Singleton<SingletonProbe> {
public:
    static void Force(std::uintptr_t address) { sm_instance = reinterpret_cast<SingletonProbe*>(address); }
    std::uint64_t m_value = 0; // real instances have members, so are aligned
};

namespace corvid_test {
class Nested : public corvid::Singleton<Nested> {
public:
    std::uint64_t m_value = 0;
};
} // namespace corvid_test

namespace {

class SingletonTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (vxtest::KernelLogFile().empty())
            GTEST_SKIP() << "needs the kernel log isolated in a file (root)";
    }
    void TearDown() override { SingletonProbe::Force(0); }

    // The kernel-log records that a statement dying in a child left behind.
    static std::string ReportOf(const std::function<void()>& statement)
    {
        const auto before = vxtest::ReadFile(vxtest::KernelLogFile()).size();
        EXPECT_DEATH(statement(), "");
        return vxtest::ReadFile(vxtest::KernelLogFile()).substr(before);
    }
};

TEST_F(SingletonTest, RegistersOneInstanceAndChecksItsPointer)
{
    {
        SingletonProbe probe;
        EXPECT_EQ(SingletonProbe::GetInstance(), &probe);
    }
    SingletonProbe::Force(0x1000);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(SingletonProbe::GetInstance()), 0x1000u);

    for (const std::uintptr_t address : {0x0, 0xFFF, 0x1004}) {
        SingletonProbe::Force(address);
        const std::string report = ReportOf([] { SingletonProbe::GetInstance(); });
        const std::string pointer = address ? fmt::format("{:#x}", address) : "(nil)";
        EXPECT_EQ(report.rfind("<2>User space assert from ", 0), 0u) << report;
        EXPECT_NE(report.find(": Invalid pointer\nPointer=" + pointer +
                              "\nASSERT Executing lib/platform/singleton:71:static T* "
                              "corvid::Singleton<T>::GetInstance() [with T = SingletonProbe]\n"),
                  std::string::npos)
            << report;
    }
}

TEST_F(SingletonTest, SecondInstanceAndForeignDestructionAbort)
{
    std::string report = ReportOf([] {
        corvid_test::Nested first;
        corvid_test::Nested second;
    });
    EXPECT_NE(report.find(": sm_instance == __null\nASSERT Executing lib/platform/singleton:51:"
                          "corvid::Singleton<T>::Singleton() [with T = corvid_test::Nested]\n"),
              std::string::npos)
        << report;

    report = ReportOf([] {
        SingletonProbe probe;
        SingletonProbe::Force(0x2000);
    });
    EXPECT_EQ(report.rfind("<2>User space assert from process ", 0), 0u) << report;
    EXPECT_NE(report.find(": sm_instance == this\nASSERT Executing lib/platform/singleton:58:"
                          "corvid::Singleton<T>::~Singleton() [with T = SingletonProbe]\n"),
              std::string::npos)
        << report;
}

} // namespace
