// vxtool mkdevdata and vxtool devdata, run as programs on partition images.
#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/oracles.h"
#include "support/programs.h"

namespace {

using vxtest::Le32;
using vxtest::Sha1sumChunk;

// The exit status, ":", then standard output and standard error.
std::string Vxtool(const std::vector<std::string>& args)
{
    const vxtest::RunResult r = vxtest::Vxtool(args);
    return std::to_string(r.exit_status) + ":" + r.out + r.err;
}

TEST(VxtoolDevdata, BuildsAndListsAnImageOverABadBlock)
{
    vxtest::TempDir dir;
    const std::string chunks =
        Sha1sumChunk("BLES", std::string(300, 'b')) + Sha1sumChunk("BOON", "x");
    const std::string image = dir.Path() + "/devid.img";
    EXPECT_EQ(Vxtool({"mkdevdata", "--erase-size", "16384", "-o", image, "--bad-blocks", "0",
                      "--header-word", "0x01020304", "--chunk",
                      "RAW_:" + dir.WriteFile("abc", "abc"), dir.WriteFile("c", chunks)}),
              "0:");
    const std::string data = "VXDD" + Le32(0x01020304) + Sha1sumChunk("RAW_", "abc") + chunks;
    EXPECT_EQ(vxtest::ReadFile(image),
              std::string(16384, '\0') + data + std::string(16384 - data.size(), '\xFF'));
    EXPECT_EQ(Vxtool({"devdata", "--image", image, "--erase-size", "16384", "--bad-blocks", "0"}),
              "0:RAW_\t3\tok\nBLES\t300\tok\nBOON\t1\tok\n");

    // Two 2028-byte chunks need two blocks from block 1 on; block 2 is bad.
    const std::string chunk = "ONE_:" + dir.WriteFile("payload", std::string(2000, 'p'));
    EXPECT_EQ(Vxtool({"mkdevdata", "--erase-size", "2048", "-o", image, "--bad-blocks", "0,2",
                      "--chunk", chunk, "--chunk", chunk}),
              "1:error: bad block 2 lies inside the data (blocks 1 to 2)\n");
}

TEST(VxtoolDevdata, CorruptAndTooSmallChunks)
{
    std::string tampered = Sha1sumChunk("BLES", "abc");
    tampered[10] = 'd';
    // With 256 KiB erase blocks a chunk longer than the parser's limit reaches the parser.
    std::string data = "VXDD" + Le32(0) + tampered + "TINY" + Le32(19) + std::string(19, 'x') +
                       Sha1sumChunk("\x01" "AB\\", "") + "HUGE" + Le32(0x20001);
    data.resize(262144, '\xFF');
    vxtest::TempDir dir;
    const std::string listed =
        Vxtool({"devdata", "--image", dir.WriteFile("i", data), "--erase-size", "262144"});
    EXPECT_THAT(listed, testing::StartsWith("1:BLES\t3\tcorrupt\nTINY\t-\ttoo-small\n"
                                            "\\x01AB\\x5c\t0\tok\n"
                                            "Veltrix device data chunk failed integrity check\n"));
    EXPECT_THAT(listed, testing::EndsWith("Veltrix device data chunk too small\n"
                                          "error: Veltrix device data section too large\n"));

    // The factory tool refuses what the player would report.
    const std::string file = dir.WriteFile("tampered.chunk", tampered);
    EXPECT_EQ(Vxtool({"mkdevdata", "--erase-size", "2048", "-o", dir.Path() + "/o", file}),
              "1:error: " + file + ": chunk at offset 0 failed integrity check\n");
}

} // namespace
