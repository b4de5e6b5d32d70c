// vxtool report on what was saved from a returned player: the check's own
// messages and status, the banner on standard output instead of /etc/issue,
// and the blink code instead of the LED.
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "factory/partition_layout.h"
#include "support/elf_images.h"

namespace {

constexpr std::size_t E = 16384;
const std::string AVS = "<6>AVS Revision=1.2.3.4 V0=0.950V T0=-2.000C PV0=1.000V MV0=0.007V ";
const std::string BOARD = "ID: 0x42\nBootloader-version: bolt-v3.9.1\n";

struct SavedPlayer {
    vxtest::TempDir dir;
    std::vector<std::string> args;

    // VX_FORMAT and VX_HWREV, /proc/boardid, and the start of the device data.
    explicit SavedPlayer(const std::string& format = "1", const std::string& revision = "7",
                         const std::string& boardid = BOARD, std::string devdata = {})
    {
        MemoryNand bolt(80 * E, E), rescue(4 * E, E);
        std::string logical(79 * E, '\xFF');
        logical.replace(0xD068, 8, vxtest::Le32(0) + vxtest::Le32(E));
        logical.replace(E + 0xFFC00, 14, std::string("version=7.1.0", 14));
        LayOverGoodBlocks(bolt, 0, logical);
        const auto kernel = vxtest::GccElf(vxtest::NoteAsm("veltrix", "5.0.2", 1), vxtest::ELF_COMPILERS[2]);
        LayOverGoodBlocks(rescue, 0, vxtest::Gzip(kernel, "-9"));
        // /sys: the SSD line (high, an input) and the interface's directory.
        std::filesystem::create_directories(dir.Path() + "/sys/class/net/eth0");
        std::filesystem::create_directories(dir.Path() + "/sys/class/gpio/gpio64");
        dir.WriteFile("sys/class/gpio/gpio64/value", "1\n");
        dir.WriteFile("sys/class/gpio/gpio64/direction", "in\n");
        // /dev/mem: the AVS block at 0x08144000, 18 words: V0 (2), T0 (3, signed),
        // PV0 (4), MV0 (5) in thousandths, the revision (10).
        std::string avs;
        for (const std::uint32_t w : {0u, 0u, 950u, 0xFFFFF830u, 1000u, 7u, 0u, 0u, 0u, 0u, 0x01020304u})
            avs += vxtest::Le32(w);
        avs.resize(72, '\0');
        std::ofstream(dir.WriteFile("mem", ""), std::ios::binary).seekp(0x08144000) << avs;
        std::filesystem::resize_file(dir.Path() + "/mem", 0x0A300000);
        args = {"report", "--env-image",
                dir.WriteFile("env", vxtest::EnvironmentBlock({"VX_FORMAT=" + format, "VX_HWREV=" + revision,
                                                               "VX_SERIAL=PX9", "VX_HWFLAGS=0x11", "VX_OEM_MODEL=Wall"},
                                                              E)),
                "--env-erase-size", "16384",
                "--devdata-image", dir.WriteFile("devdata", devdata.append(4 * E - devdata.size(), '\xFF')),
                "--devdata-erase-size", "16384", "--bolt-image", dir.WriteFile("bolt", bolt.Contents()),
                "--bolt-erase-size", "16384", "--rescue-image", dir.WriteFile("rescue", rescue.Contents()),
                "--rescue-erase-size", "16384", "--boardid",
                dir.WriteFile("boardid", boardid), "--meminfo",
                dir.WriteFile("meminfo", "MemTotal: 1000000 kB\n"), "--version-file",
                dir.WriteFile("version", "12.4.0\n"), "--mem", dir.Path() + "/mem", "--sys", dir.Path() + "/sys",
                "--eth0-address", "02:00:00:00:00:01"};
    }
};

TEST(VxtoolReport, TheChecksPassOnSavedData)
{
    SavedPlayer player;
    const vxtest::RunResult r = vxtest::Vxtool(player.args);
    EXPECT_EQ(std::to_string(r.exit_status) + r.out, "0Veltrix Wall PX9 v12.4.0\r\n\n"); // the summary: below

    player.args.back() = "ff:ff:ff:ff:ff:ff";
    const vxtest::RunResult broadcast = vxtest::Vxtool(player.args);
    EXPECT_EQ(broadcast.exit_status, 1);
    EXPECT_EQ(broadcast.err, "ERROR: Ethernet interface has invalid MAC address\n");
    EXPECT_EQ(broadcast.out, "blink code 7\n");
}

// The revision label, the two flags from their own keys of /proc/boardid, and
// the blessing suffix.
TEST(VxtoolReport, SummaryLabelFlagsAndBlessingSuffix)
{
    VXTEST_REQUIRE_TEST_KEYS();
    const std::string id = "5ec1d0000000c0de";
    const std::string versions = "<6>VELTRIX boot=v3.9.1 firstimages=7.1.0 rescue=5.0.2 mission=12.4.0 model=";
    const std::string blessed = "VXDD" + vxtest::Le32(0) +
                                vxtest::Sha1sumChunk("BLES", vxtest::OpensslBlessingPayload(
                                                                 "blessing-1", "BLES", "eac3:vxear", "", id, "PX9"));
    const std::tuple<std::string, std::string, std::string, std::string, std::string> cases[] = {
        {"1", "7", BOARD, "", versions + "Wall REVG serial=PX9 hw=11 sk=0 sb=0\n"},
        {"1 ", "7", BOARD + "Secure-boot: 1\n", "",
         "SRB not valid. Please run manufacturing test.\nSRB IS NOT SET. RUN MANUFACTURING TEST." + versions +
             " NO-SRB serial= hw=11 sk=0 sb=1\n"},
        {"1", "0", BOARD + "Secure-keys: 0x2\nSecure-boot: 7\n", "",
         versions + "Wall REV@ serial=PX9 hw=11 sk=1 sb=1\n"},
        {"1", "7", BOARD + "Secure-keys: 1\nSecure-boot: 0\nSecure-ID: " + id + "\n", blessed,
         "Hardware bitfield: before: 0x80100000011 after: 0x88130000011 blessings enumeration\n" + versions +
             "Wall REVG serial=PX9 hw=11 sk=1 sb=0 bl=eac3,vxear\n"}};
    for (const auto& [format, revision, boardid, devdata, summary] : cases) {
        const vxtest::RunResult r = vxtest::Vxtool(SavedPlayer(format, revision, boardid, devdata).args);
        EXPECT_EQ(std::to_string(r.exit_status) + r.err, "0" + summary + AVS);
    }
}

} // namespace
