// vxtool env and vxtool mkenv, run as programs.
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "support/sandbox.h"

namespace {

using vxtest::RunProgram;
using vxtest::RunResult;

constexpr std::size_t E = 16384;

RunResult Vxtool(const std::vector<std::string>& args, const std::string& input = std::string())
{
    return RunProgram(VX_VXTOOL_PATH, args, input);
}

std::string Record(const std::string& text)
{
    return std::string("\x01", 1) + static_cast<char>(text.size() + 1) + '\0' + text;
}

class VxtoolEnvTest : public testing::Test {
protected:
    // Writes an image and runs vxtool env on it.
    RunResult Env(const std::string& image, const std::string& bad_blocks = "")
    {
        std::vector<std::string> args = {"env", "--image", m_dir.WriteFile("image", image),
                                         "--erase-size", std::to_string(E)};
        if (!bad_blocks.empty())
            args.insert(args.end(), {"--bad-blocks", bad_blocks});
        return Vxtool(args);
    }

    vxtest::TempDir m_dir;
};

TEST_F(VxtoolEnvTest, ReadsAnEnvironmentMadeByMkenvBehindBadBlocks)
{
    const std::string block_path = m_dir.Path() + "/env.bin";
    const RunResult made =
        Vxtool({"mkenv", "--erase-size", std::to_string(E), "-o", block_path},
               "VX_SERIAL=SIM0001\r\n\nVX_OEM_MODEL=Sim=Model\nVX_FORMAT=0\nVX_FORMAT=1\nEMPTY=");
    ASSERT_EQ(made.exit_status, 0) << made.err;
    EXPECT_EQ(made.err, "");
    const std::string block = vxtest::ReadFile(block_path);
    ASSERT_EQ(block.size(), E);
    EXPECT_EQ(block.substr(0, 20), Record("VX_SERIAL=SIM0001"));

    // The two bad blocks in front hold a decoy environment that must not be read.
    std::string decoy = Record("DECOY=1") + '\0';
    decoy.resize(E, '\xFF');
    const std::string erased(E, '\xFF');
    const std::string image = decoy + decoy + block + erased;

    const RunResult env = Env(image, "0,1");
    EXPECT_EQ(env.exit_status, 0);
    EXPECT_EQ(env.err, "");
    EXPECT_EQ(env.out, "EMPTY=\nVX_FORMAT=1\nVX_OEM_MODEL=Sim=Model\nVX_SERIAL=SIM0001\n");

    // Without the bad-block list the decoy is what the first block holds.
    EXPECT_EQ(Env(image).out, "DECOY=1\n");
}

TEST_F(VxtoolEnvTest, ErasedEnvironmentPrintsNothing)
{
    const RunResult env = Env(std::string(2 * E, '\xFF'), "0");
    EXPECT_EQ(env.exit_status, 0);
    EXPECT_EQ(env.out, "");
    EXPECT_EQ(env.err, "");
}

TEST_F(VxtoolEnvTest, LoadFailuresPrintTheLoadersReason)
{
    // Records A=1, then B=1 padding records up to a last one cut by the block end.
    std::string block = Record("A=1");
    while (block.size() + 6 < E)
        block += Record("B=1");
    block += std::string("\x01\x30\x00", 3);
    block.resize(E, 'x');

    for (const auto& [image, bad, message] :
         {std::tuple{block, std::string(), std::string("error: Record content truncated\n")},
          std::tuple{Record("A=1") + std::string(E - 6, '\x02'), std::string(),
                     std::string("error: Unknown record type\n")},
          std::tuple{std::string(2 * E, '\xFF'), std::string("0,1"),
                     std::string("error: All BOLT environment NAND blocks are bad\n")}}) {
        const RunResult env = Env(image, bad);
        EXPECT_EQ(env.exit_status, 1);
        EXPECT_EQ(env.out, "");
        EXPECT_EQ(env.err, message);
    }

    // A record without '=' is reported and skipped; the rest is printed.
    std::string skipped = Record("A=1") + Record("JUNK") + Record("B=2") + '\0';
    skipped.resize(E, '\xFF');
    const RunResult env = Env(skipped);
    EXPECT_EQ(env.exit_status, 0);
    EXPECT_EQ(env.out, "A=1\nB=2\n");
    EXPECT_EQ(env.err, "No equals sign in environment string\n");
}

TEST_F(VxtoolEnvTest, MkenvRefusesWhatOneRecordOrBlockCannotHold)
{
    const std::string out = m_dir.Path() + "/env.bin";
    const RunResult too_long =
        Vxtool({"mkenv", "--erase-size", "4096", "-o", out}, "K=" + std::string(253, 'v') + "\n");
    EXPECT_EQ(too_long.exit_status, 1);
    EXPECT_EQ(too_long.err.rfind("error: ", 0), 0u) << too_long.err;

    const RunResult too_small = Vxtool({"mkenv", "--erase-size", "8", "-o", out}, "A=1\nB=2\n");
    EXPECT_EQ(too_small.exit_status, 1);
    EXPECT_EQ(too_small.err.rfind("error: ", 0), 0u) << too_small.err;

    EXPECT_EQ(Vxtool({"mkenv", "--erase-size", "4096", "-o", out}, "NOEQUALS\n").exit_status, 1);
}

TEST_F(VxtoolEnvTest, InconsistentOptionsAreUsageErrors)
{
    const std::string image = m_dir.WriteFile("image", std::string(E, '\xFF'));
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"env", "--image", image},
             {"env", "--erase-size", "4096"},
             {"env", "--mtd", "flash0.nvram", "--image", image, "--erase-size", "4096"},
             {"env", "--image", image, "--erase-size", "0"},
             {"env", "--image", image, "--erase-size", "4096", "--bad-blocks", "1,,2"},
             {"env", "--image", image, "--erase-size", "4096", "--write-size", "3000"},
             {"env", "--image", image, "--erase-size", "4096", "extra"},
             {"mkenv", "--erase-size", "4096"},
             {"mkenv", "-o", m_dir.Path() + "/x"}}) {
        const RunResult result = Vxtool(args);
        EXPECT_EQ(result.exit_status, 2) << args[1];
        EXPECT_EQ(result.out, "");
    }
}

} // namespace
