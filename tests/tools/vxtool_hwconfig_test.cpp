// vxtool hwconfig on images made by the factory commands: the library's own
// derivation, read from a returned player's data.
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/oracles.h"
#include "support/programs.h"

namespace {

TEST(VxtoolHwconfig, DerivesTheConfigurationFromImages)
{
    VXTEST_REQUIRE_TEST_KEYS();
    vxtest::TempDir dir;
    const std::string id = "5ec1d0000000c0de", env = dir.Path() + "/env.img";
    const std::string chunk = dir.Path() + "/b.chunk", devid = dir.Path() + "/devid.img";
    const auto run = [](const std::vector<std::string>& args, const std::string& input = {}) {
        const vxtest::RunResult r = vxtest::Vxtool(args, input);
        return std::to_string(r.exit_status) + " " + r.out + r.err;
    };
    const std::string signed_env =
        run({"sign-srb", "--key", vxtest::TestPrivateKey("srb-1"), "--secure-id", id},
            "VX_FORMAT=1\nVX_SERIAL=S1\nVX_HWFLAGS=0x111\nVX_OEM_MODEL=Sign 4K\n").substr(2);
    ASSERT_EQ(run({"mkenv", "--erase-size", "16384", "-o", env}, signed_env), "0 ");
    ASSERT_EQ(run({"bless", "--key", vxtest::TestPrivateKey("blessing-1"), "--names", "vxear:Disable-HDMI",
                   "--secure-id", id, "--serial", "S1", "-o", chunk}), "0 ");
    ASSERT_EQ(run({"mkdevdata", "--erase-size", "16384", "-o", devid, chunk}), "0 ");
    const std::string boardid = dir.WriteFile("boardid", "ID: 0x42\nSecure-boot: 1\nSecure-ID: " + id + "\n");

    EXPECT_EQ(run({"hwconfig", "--env-image", env, "--env-erase-size", "16384", "--devdata-image", devid,
                   "--devdata-erase-size", "16384", "--boardid", boardid}),
              "0 board-id: 66\nfamily: \nbolt-version: \nbootloader-version: \nsecure-keys: 0\n"
              "secure-boot: 1\nsecure-id: " + id + "\nsoc: \noem-id: \noem-model: Sign 4K\n"
              "srb-valid: 1\nconfigured: 1\nhardware-bitfield: 0x88100000110\n"
              "bit 0x10 ethernet\nbit 0x100 gpio-connector\nbit 0x100000000 srb-configured\n"
              "bit 0x8000000000 vxear\nbit 0x80000000000 blessings-applied\n"
              "Hardware bitfield: before: 0x80100000111 after: 0x88100000110 blessings enumeration\n");

    // Every named bit, as the documentation names it: a signed record
    // without VX_HWFLAGS (all ones) and no blessings.
    const std::string all = run({"sign-srb", "--key", vxtest::TestPrivateKey("srb-1"), "--secure-id", id},
                                "VX_FORMAT=1\n").substr(2);
    ASSERT_EQ(run({"mkenv", "--erase-size", "16384", "-o", env}, all), "0 ");
    const std::string erased = dir.WriteFile("erased.img", std::string(4 * 16384, '\xFF'));
    std::string lines;
    for (const vxtest::CapabilityOracle& row : vxtest::CAPABILITY_ORACLE)
        lines += fmt::format("bit 0x{:x} {}\n", row.mask, row.printed);
    EXPECT_THAT(run({"hwconfig", "--env-image", env, "--env-erase-size", "16384", "--devdata-image", erased,
                     "--devdata-erase-size", "16384", "--boardid", boardid}),
                testing::EndsWith("hardware-bitfield: 0xffffffffffffffff\n" + lines));
}

} // namespace
