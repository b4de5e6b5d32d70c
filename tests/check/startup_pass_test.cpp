// The steps of the start-up pass that the simulated player's scenarios do
// not reach cheaply: every revision label, the address rules and the
// read failure, the AVS line's absent keys.
#include <filesystem>

#include <gtest/gtest.h>

#include "check/hardware_failure.h"
#include "check/startup_pass.h"
#include "hardware/hardware_config.h"
#include "support/fake_context.h"
#include "support/oracles.h"

namespace {

BootloaderEnvironment Environment(std::map<std::string, std::string> variables)
{
    BootloaderEnvironment environment;
    environment.variables = std::move(variables);
    return environment;
}

TEST(StartupPass, RevisionLabelAndHardwareFlags)
{
    for (const auto& [revision, label] : {std::pair{"0", "REV@"}, {"1", "REVA"}, {"0x19", "REVY"}, {"26", "REV26"},
                                          {"65535", "REV65535"}, {"65537", "REV65535"}, {"x", "REV@"}}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(LabelRevision(Environment({{"VX_FORMAT", "1"}, {"VX_HWREV", revision}})), label) << revision;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    }
    EXPECT_EQ(LabelRevision(Environment({{"VX_FORMAT", "1"}})), "REV65535");
    for (const char* format : {"1 ", "01", ""}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(LabelRevision(Environment({{"VX_FORMAT", format}, {"VX_HWREV", "1"}})), "NO-SRB");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "SRB IS NOT SET. RUN MANUFACTURING TEST.");
    }
    EXPECT_EQ(Environment({}).HardwareFlags(), ~std::uint64_t(0));
    EXPECT_EQ(Environment({{"VX_HWFLAGS", "0x1f"}}).HardwareFlags(), 0x1fu);
    EXPECT_EQ(Environment({{"VX_HWFLAGS", "010"}}).HardwareFlags(), 8u);
}

TEST(StartupPass, EthernetAddressRules)
{
    FakeContext context;
    const auto check = [](std::uint64_t bits) { return vxtest::WhatOf([bits] { CheckEthernet(bits); }); };
    EXPECT_EQ(check(~HW_ETHERNET), "no exception"); // never looks
    EXPECT_EQ(check(HW_ETHERNET), "Ethernet device not found");
    context.WriteFile("/sys/class/net/eth0", "not a directory");
    EXPECT_EQ(check(HW_ETHERNET), "Ethernet device not found");
    std::filesystem::remove(context.Path("/sys/class/net/eth0"));
    std::filesystem::create_directory(context.Path("/sys/class/net/eth0"));
    EXPECT_EQ(check(HW_ETHERNET), "No such device (errno 19)"); // the reader's own failure
    // The invalid addresses are the simulated player's eth-mac-* scenarios.
    for (const corvid::HardwareAddress mac : {corvid::HardwareAddress{0, 0, 0, 0, 0, 1}, {2, 0x56, 0x58, 0, 0, 0}}) {
        context.interfaces["eth0"] = mac;
        EXPECT_EQ(check(HW_ETHERNET), "no exception") << int(mac[5]);
    }
    context.interfaces["eth0"] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    try {
        CheckEthernet(HW_ETHERNET);
        ADD_FAILURE() << "broadcast address taken";
    } catch (const HardwareFailure& e) {
        EXPECT_EQ(e.GetPattern(), ERROR_LED_ETHERNET);
    }
}

TEST(StartupPass, AvsLineNamesAllFiveKeys)
{
    testing::internal::CaptureStderr();
    PrintAvsReport({{"V0", "0.900V"}, {"T1", "1.000C"}, {"MV0", "1.000V"}});
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "<6>AVS Revision= V0=0.900V T0= PV0= MV0=1.000V ");
}

} // namespace
