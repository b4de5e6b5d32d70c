#include <cstdint>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "platform/singleton.h"
#include "support/kernel_log.h"
#include "support/sandbox.h"

class SingletonProbe : public corvid::Singleton<SingletonProbe> {
public:
    static void Force(std::uintptr_t address) { sm_instance = reinterpret_cast<SingletonProbe*>(address); }
    std::uint64_t m_value = 0; // real instances have members, so are aligned
};

namespace corvid_test {
class Nested : public corvid::Singleton<Nested> {
    std::uint64_t m_value = 0;
};
} // namespace corvid_test

namespace {

// The kernel-log records a death test's child left behind.
std::string ChildReport()
{
    return vxtest::ReadFile(vxtest::KernelLogFile());
}

class SingletonTest : public testing::Test {
protected:
    void SetUp() override
    {
        VXTEST_REQUIRE_SAFE_KERNEL_LOG();
        if (vxtest::KernelLogFile().empty())
            GTEST_SKIP() << "reports go to standard error here; their text is checked elsewhere";
        testing::FLAGS_gtest_death_test_style = "fast";
    }
    void TearDown() override { SingletonProbe::Force(0); }
};

TEST_F(SingletonTest, RegistersOneInstance)
{
    {
        SingletonProbe probe;
        EXPECT_EQ(SingletonProbe::GetInstance(), &probe);
    }
    SingletonProbe::Force(0x1000);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(SingletonProbe::GetInstance()), 0x1000u);
}

TEST_F(SingletonTest, GetInstanceRefusesImplausiblePointers)
{
    for (const std::uintptr_t address : {0x0, 0xFFF, 0x1004}) {
        SingletonProbe::Force(address);
        const auto before = ChildReport().size();
        EXPECT_DEATH(SingletonProbe::GetInstance(), "");
        const std::string report = ChildReport().substr(before);
        const std::string pointer = address ? fmt::format("{:#x}", address) : "(nil)";
        EXPECT_NE(report.find(": Invalid pointer\nPointer=" + pointer + "\n"
                              "ASSERT Executing lib/platform/singleton:71:"
                              "static T* corvid::Singleton<T>::GetInstance() "
                              "[with T = SingletonProbe]\n"),
                  std::string::npos)
            << report;
        EXPECT_EQ(report.rfind("<2>User space assert from ", 0), 0u) << report;
    }
}

TEST_F(SingletonTest, SecondInstanceAndForeignDestructionAbort)
{
    auto before = ChildReport().size();
    EXPECT_DEATH(
        {
            corvid_test::Nested first;
            corvid_test::Nested second;
        },
        "");
    EXPECT_NE(ChildReport().substr(before).find(
                  ": sm_instance == __null\nASSERT Executing lib/platform/singleton:51:"
                  "corvid::Singleton<T>::Singleton() [with T = corvid_test::Nested]\n"),
              std::string::npos)
        << ChildReport();

    before = ChildReport().size();
    EXPECT_DEATH(
        {
            SingletonProbe probe;
            SingletonProbe::Force(0x2000);
        },
        "");
    EXPECT_NE(ChildReport().substr(before).find(
                  "<2>User space assert from process "),
              std::string::npos);
    EXPECT_NE(ChildReport().substr(before).find(
                  ": sm_instance == this\nASSERT Executing lib/platform/singleton:58:"
                  "corvid::Singleton<T>::~Singleton() [with T = SingletonProbe]\n"),
              std::string::npos)
        << ChildReport();
}

} // namespace
