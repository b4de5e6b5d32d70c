// vxtool env and vxtool mkenv, run as programs.
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/oracles.h"
#include "support/programs.h"

namespace {

using vxtest::RunResult;
using vxtest::Vxtool;

constexpr std::size_t E = 16384;

std::string Block(const std::vector<std::string>& texts)
{
    return vxtest::EnvironmentBlock(texts, E);
}

TEST(VxtoolEnvTest, PrintsTheEnvironmentOrTheLoadersReason)
{
    vxtest::TempDir dir;
    const std::string made = dir.Path() + "/env.bin";
    const std::string input =
        "VX_SERIAL=SIM0001\r\n\nVX_OEM_MODEL=Sim=Model\nVX_FORMAT=0\nVX_FORMAT=1\nE=";
    ASSERT_EQ(Vxtool({"mkenv", "--erase-size", std::to_string(E), "-o", made}, input).exit_status,
              0);
    // Bad blocks in front hold a decoy environment that must not be read.
    const std::string image = Block({"DECOY=1"}) + Block({"DECOY=1"}) + vxtest::ReadFile(made);
    const struct {
        std::string image, bad_blocks, out, err;
        int status;
    } cases[] = {
        {image, "0,1", "E=\nVX_FORMAT=1\nVX_OEM_MODEL=Sim=Model\nVX_SERIAL=SIM0001\n", "", 0},
        {image, "", "DECOY=1\n", "", 0},
        {Block({"A=1", "JUNK", "B=2"}), "", "A=1\nB=2\n",
         "No equals sign in environment string\n", 0},
        {Block({"A=1"}).replace(6, 1, "\x02"), "", "", "error: Unknown record type\n", 1},
        {Block({}) + Block({}), "0,1", "", "error: All BOLT environment NAND blocks are bad\n", 1},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = {"env", "--image", dir.WriteFile("image", c.image),
                                         "--erase-size", std::to_string(E)};
        if (!c.bad_blocks.empty())
            args.insert(args.end(), {"--bad-blocks", c.bad_blocks});
        const RunResult env = Vxtool(args);
        EXPECT_EQ(env.exit_status, c.status) << c.err;
        EXPECT_EQ(env.out + env.err, c.out + c.err);
    }
}

TEST(VxtoolEnvTest, RefusalsAndUsageErrors)
{
    vxtest::TempDir dir;
    const std::string image = dir.WriteFile("image", Block({}));
    const std::string out = dir.Path() + "/env.bin";
    // Records that do not fit in the block: exit 1 and nothing written.
    const RunResult refused = Vxtool({"mkenv", "--erase-size", "8", "-o", out}, "A=1\nB=2\n");
    EXPECT_EQ(refused.exit_status, 1);
    EXPECT_EQ(refused.err.rfind("error: ", 0), 0u) << refused.err;
    EXPECT_EQ(access(out.c_str(), F_OK), -1);

    const std::string e = "--erase-size";
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"env", "--image", image}, {"env", e, "4096"}, {"env", "--image", image, e, "0"},
             {"env", "--image", image, e, "4096", "--bad-blocks", "1,,2"},
             {"env", "--image", image, e, "4096", "--write-size", "3000"},
             {"env", "--image", image, e, "4096", "--mtd", "x"},
             {"env", "--image", image, e, "4096", "extra"},
             {"mkenv", e, "4096"}, {"mkenv", "-o", out}})
        EXPECT_EQ(Vxtool(args).exit_status, 2) << args.back();
}

} // namespace
