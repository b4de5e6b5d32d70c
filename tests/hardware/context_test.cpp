// The live context's paths and the board identity reader.
#include <string>

#include <gtest/gtest.h>

#include "hardware/board_id.h"
#include "hardware/context.h"
#include "support/fake_context.h"
#include "support/oracles.h"

namespace {

TEST(LiveContext, PathsAreTheLivePathsThemselves)
{
    const LiveContext context;
    EXPECT_EQ(context.Path("/proc/boardid"), "/proc/boardid");
    EXPECT_EQ(Context::GetInstance(), &context);
}

TEST(ReadBoardId, TheKeysOfTheTableAsFscanfReadsThem)
{
    FakeContext context;
    const std::string path = context.WriteFile(
        BOARD_ID_PATH, "ID: 0x42\nFamily: vx4\nBOLT-version: v1.20\nBootloader-version: 4.2.1\n"
                       "Secure-keys: 0x1\nSecure-boot: 0\nsecure-id: lower\nSecure-ID: "
                       "5ec1d0000000c0de\nSoC: bcm\nID: 7 Family: v" + std::string(70, 'x') + "\n");
    const BoardIdentity id = ReadBoardId(path);
    EXPECT_EQ(id.id, 7);
    // A value longer than 64 characters is read in two pieces: the rest
    // becomes the next key, and the pairs go on out of step.
    EXPECT_EQ(id.family, "v" + std::string(63, 'x'));
    EXPECT_EQ(id.bolt_version + " " + id.bootloader_version + " " + id.soc, "v1.20 4.2.1 bcm");
    EXPECT_EQ(id.secure_id, "5ec1d0000000c0de");
    EXPECT_TRUE(id.secure_keys);
    EXPECT_FALSE(id.secure_boot);
    EXPECT_EQ(ReadBoardId(context.WriteFile(BOARD_ID_PATH, "ID:\n")).id, -1);
    EXPECT_EQ(vxtest::ErrnoOf([&] { ReadBoardId(context.Path("/proc/none")); }).first, ENOENT);
}

} // namespace
