// vxtool mkdevdata and vxtool devdata, run as programs on partition images.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/sandbox.h"

namespace {

using vxtest::RunProgram;
using vxtest::RunResult;

std::string Le32(std::uint32_t v)
{
    return {char(v & 0xFF), char(v >> 8 & 0xFF), char(v >> 16 & 0xFF), char(v >> 24 & 0xFF)};
}

// A chunk whose digest comes from coreutils' sha1sum, not from the project's code.
std::string ChunkWithSha1sum(const std::string& tag, const std::string& payload)
{
    const RunResult sum = RunProgram("/usr/bin/sha1sum", {}, payload);
    EXPECT_EQ(sum.exit_status, 0);
    std::string digest;
    for (std::size_t i = 0; i < 40; i += 2)
        digest.push_back(static_cast<char>(std::stoi(sum.out.substr(i, 2), nullptr, 16)));
    return tag + Le32(std::uint32_t(payload.size() + 20)) + payload + digest;
}

std::string Pad(const std::string& bytes, std::size_t size, char fill = '\xFF')
{
    return bytes + std::string(size - bytes.size(), fill);
}

RunResult Vxtool(const std::vector<std::string>& args)
{
    return RunProgram(VX_VXTOOL_PATH, args);
}

TEST(VxtoolDevdata, BuildsAndListsAnImageOverABadBlock)
{
    vxtest::TempDir dir;
    const std::string blessing = ChunkWithSha1sum("BLES", std::string(300, 'b'));
    const std::string chunk_file =
        dir.WriteFile("blessing.chunk", blessing + ChunkWithSha1sum("BOON", "x"));
    const std::string payload_file = dir.WriteFile("payload", "abc");
    const std::string image = dir.Path() + "/devid.img";

    const RunResult made =
        Vxtool({"mkdevdata", "--erase-size", "16384", "-o", image, "--bad-blocks", "0",
                "--header-word", "0x01020304", "--chunk", "RAW_:" + payload_file, chunk_file});
    ASSERT_EQ(made.exit_status, 0) << made.err;
    EXPECT_EQ(made.err, "");
    EXPECT_EQ(vxtest::ReadFile(image),
              std::string(16384, '\0') +
                  Pad("VXDD" + Le32(0x01020304) + ChunkWithSha1sum("RAW_", "abc") + blessing +
                          ChunkWithSha1sum("BOON", "x"),
                      16384));

    const RunResult listed =
        Vxtool({"devdata", "--image", image, "--erase-size", "16384", "--bad-blocks", "0"});
    EXPECT_EQ(listed.exit_status, 0);
    EXPECT_EQ(listed.out, "RAW_\t3\tok\nBLES\t300\tok\nBOON\t1\tok\n");
    EXPECT_EQ(listed.err, "");
}

TEST(VxtoolDevdata, ListsCorruptAndTooSmallChunksWithTheLibraryMessages)
{
    vxtest::TempDir dir;
    std::string tampered = ChunkWithSha1sum("BLES", "abc");
    tampered[10] = 'd';
    const std::string image = dir.WriteFile("devid.img", Pad("VXDD" + Le32(0) + tampered + "TINY" +
                                                                 Le32(19) + std::string(19, 'x') +
                                                                 ChunkWithSha1sum("\x01"
                                                                                  "AB\\",
                                                                                  ""),
                                                             16384));

    const RunResult listed = Vxtool({"devdata", "--image", image, "--erase-size", "16384"});
    EXPECT_EQ(listed.exit_status, 0);
    EXPECT_EQ(listed.out, "BLES\t3\tcorrupt\nTINY\t-\ttoo-small\n\\x01AB\\x5c\t0\tok\n");
    EXPECT_EQ(listed.err, "Veltrix device data chunk failed integrity check\n"
                          "0: 42 4c 45 53 17 00 00 00 61 62 64 a9 99 3e 36 47 \n"
                          "16: 06 81 6a ba 3e 25 71 78 50 c2 6c 9c d0 d8 9d    \n"
                          "Calculated hash\n"
                          "0: cb 4c c2 8d f0 fd be 0e cf 9d 96 62 e2 94 b1 18 \n"
                          "16: 09 2a 57 35                                     \n"
                          "Expected hash\n"
                          "0: a9 99 3e 36 47 06 81 6a ba 3e 25 71 78 50 c2 6c \n"
                          "16: 9c d0 d8 9d                                     \n"
                          "Veltrix device data chunk too small\n");
}

TEST(VxtoolDevdata, PartitionErrorsEndTheListing)
{
    vxtest::TempDir dir;
    // With 256 KiB erase blocks a chunk longer than the parser's limit reaches
    // the parser: the chunks before it are listed, then the error.
    const std::string big =
        dir.WriteFile("big.img", Pad("VXDD" + Le32(0) + ChunkWithSha1sum("GOOD", "abc") + "HUGE" +
                                         Le32(0x20001) + std::string(0x20001, 'h'),
                                     262144));
    const RunResult listed = Vxtool({"devdata", "--image", big, "--erase-size", "262144"});
    EXPECT_EQ(listed.exit_status, 1);
    EXPECT_EQ(listed.out, "GOOD\t3\tok\n");
    EXPECT_EQ(listed.err, "error: Veltrix device data section too large\n");
}

TEST(VxtoolMkdevdata, RefusesInputThePlayerCouldNotRead)
{
    vxtest::TempDir dir;
    std::string tampered = ChunkWithSha1sum("BLES", "abc");
    tampered[10] = 'd';
    const std::string bad_chunk = dir.WriteFile("tampered.chunk", tampered);
    const std::string payload = dir.WriteFile("payload", std::string(2000, 'p'));
    const std::string out = dir.Path() + "/out.img";

    RunResult r = Vxtool({"mkdevdata", "--erase-size", "2048", "-o", out, bad_chunk});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "error: " + bad_chunk + ": chunk at offset 0 failed integrity check\n");

    // Two 2028-byte chunks need two blocks from block 1 on; block 2 is bad.
    r = Vxtool({"mkdevdata", "--erase-size", "2048", "-o", out, "--bad-blocks", "0,2", "--chunk",
                "ONE_:" + payload, "--chunk", "TWO_:" + payload});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "error: bad block 2 lies inside the data (blocks 1 to 2)\n");
}

} // namespace
