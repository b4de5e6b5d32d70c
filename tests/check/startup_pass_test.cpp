// The steps of the start-up pass that the simulated player's scenarios do
// not reach cheaply: every revision label, the address rules and the
// read failure, the AVS line's absent keys, what may stand at /etc/issue.
#include <sys/stat.h>

#include <filesystem>
#include <tuple>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "check/startup_pass.h"
#include "hardware/hardware_config.h"
#include "support/fake_context.h"
#include "support/hostile_files.h"
#include "support/oracles.h"

namespace {

TEST(StartupPass, RevisionLabelHardwareFlagsAndTheAvsLine)
{
    // The simulated player labels 0, 1, 0x19, 26 and 65537 (report-rev*) and no VX_HWREV (blessings-bitfield).
    const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
        {"1", "65535", "REV65535", ""}, {"1", "x", "REV@", ""},
        {"01", "1", "NO-SRB", "SRB IS NOT SET. RUN MANUFACTURING TEST."},
        {"1 ", "1", "NO-SRB", "SRB IS NOT SET. RUN MANUFACTURING TEST."}};
    for (const auto& [format, revision, label, message] : cases) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(LabelRevision({{}, {{"VX_FORMAT", format}, {"VX_HWREV", revision}}}), label) << revision;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), message);
    }
    EXPECT_EQ((BootloaderEnvironment{{}, {{"VX_HWFLAGS", "010"}}}).HardwareFlags(), 8u); // 0x1f: report-rev-at
    // The AVS line names all five keys, present or not.
    testing::internal::CaptureStderr();
    PrintAvsReport({{"V0", "0.900V"}, {"T1", "1.000C"}, {"MV0", "1.000V"}});
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "<6>AVS Revision= V0=0.900V T0= PV0= MV0=1.000V ");
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
    // The invalid addresses, with their message, status and blink code, are
    // the simulated player's eth-mac-* scenarios.
    for (const corvid::HardwareAddress mac : {corvid::HardwareAddress{0, 0, 0, 0, 0, 1}, {2, 0x56, 0x58, 0, 0, 0}}) {
        context.interfaces["eth0"] = mac;
        EXPECT_EQ(check(HW_ETHERNET), "no exception") << int(mac[5]);
    }
}

// What stands at path, not followed: "file <mode> <content>", "other" or "none".
std::string State(const std::string& path)
{
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0)
        return "none";
    return S_ISREG(st.st_mode) ? fmt::format("file {:o} {}", st.st_mode & 07777, vxtest::ReadFile(path)) : "other";
}

TEST(StartupPass, TheBannerReplacesEtcIssueWhole)
{
    // What may stand at /etc/issue or at its temporary file: nothing is
    // opened, followed or left behind; a failure keeps the old banner (mode
    // 0600), and the new one is exactly 0644 under any umask.
    VXTEST_REQUIRE_ISOLATION();
    const std::string banner = "Veltrix Sim=Model SIM0001 v12.4.0\r\n\n";
    using vxtest::Hostile;
    const struct {
        const char* path;
        Hostile kind;
        const char* error;         // "" for none
        const char* issue = nullptr; // the State of /etc/issue after, null for the new banner
    } cases[] = {
        {"/etc/issue", Hostile::Fifo, ""},
        {"/etc/issue", Hostile::Symlink, ""},
        {"/etc/issue", Hostile::Directory, "/etc/issue: Is a directory (errno 21)", "other"},
        {"/etc/issue", Hostile::FullFilesystem, "/etc/issue: No space left on device (errno 28)", "file 600 old\n"},
        {"/etc/issue", Hostile::ReadOnlyFilesystem, "/etc/issue: Read-only file system (errno 30)", "file 600 old\n"},
        {"/etc/issue.tmp", Hostile::Fifo, ""},
        {"/etc/issue.tmp", Hostile::Symlink, ""},
        {"/etc/issue.tmp", Hostile::Directory, "/etc/issue.tmp: Is a directory (errno 21)", "file 600 old\n"},
    };
    const mode_t umask_was = umask(077);
    for (const auto& c : cases) {
        FakeContext context;
        const std::string where = std::string(vxtest::Name(c.kind)) + " at " + c.path;
        std::filesystem::create_directories(context.Path("/etc"));
        if (c.path == std::string("/etc/issue.tmp"))
            chmod(context.WriteFile("/etc/issue", "old\n").c_str(), 0600);
        vxtest::HostilePath hostile(c.kind, context.Path(c.path));
        EXPECT_EQ(vxtest::WhatOf([&] { WriteIssueFile(banner); }), *c.error ? context.Path(c.error) : "no exception")
            << where;
        EXPECT_EQ(hostile.Faults(), "") << where;
        EXPECT_EQ(State(context.Path("/etc/issue")), c.issue ? c.issue : "file 644 " + banner) << where;
    }
    umask(umask_was);
}

} // namespace
