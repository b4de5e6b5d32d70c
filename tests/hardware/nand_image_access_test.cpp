// Partitions held in raw image files.
#include <cerrno>
#include <functional>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "hardware/nand_block_access.h"
#include "hardware/nand_image_access.h"
#include "support/sandbox.h"

namespace {

constexpr std::size_t E = 4096;

// Block b of the image is filled with the letter 'a' + b.
std::string LetteredImage(std::size_t blocks)
{
    std::string image;
    for (std::size_t b = 0; b < blocks; ++b)
        image += std::string(E, static_cast<char>('a' + b));
    return image;
}

int ErrnoOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const corvid::ErrnoException& e) {
        return e.GetErrno();
    }
    return 0;
}

TEST(NandImageAccessTest, ReadsPhysicalBlocksWithTheGivenBadBlocks)
{
    vxtest::TempDir dir;
    const auto nand =
        NandImageAccess::Create(dir.WriteFile("img", LetteredImage(4)), E, 2048, {0, 2});
    EXPECT_EQ(nand->GetTotalSize(), 4 * E);
    EXPECT_EQ(nand->GetOobSize(), 0u);
    EXPECT_TRUE(nand->IsBadBlock(2 * E + 17));
    EXPECT_FALSE(nand->IsBadBlock(E));
    EXPECT_FALSE(nand->IsBadBlock(4 * E)); // past the end: not a listed block

    // One erase block at most, from any offset; bad blocks read like others.
    std::string buffer(3 * E, '\0');
    EXPECT_EQ(nand->Read(E / 2, buffer.data(), buffer.size()), E);
    EXPECT_EQ(buffer.substr(0, E), std::string(E / 2, 'a') + std::string(E / 2, 'b'));
    EXPECT_EQ(nand->Read(4 * E - 3, buffer.data(), buffer.size()), 3u);

    std::string logical(E + 1, '\0');
    NandBlockAccess::Read(nand, E - 1, logical.data(), logical.size());
    EXPECT_EQ(logical, "b" + std::string(E, 'd'));

    const std::string image = dir.WriteFile("img2", LetteredImage(2));
    EXPECT_THROW(NandImageAccess(image, 3000, 1000, {}), std::runtime_error); // not whole blocks
    EXPECT_THROW(NandImageAccess(image, E, 3000, {}), std::runtime_error);
    EXPECT_THROW(NandImageAccess(image, E, 2048, {2}), std::runtime_error);
}

TEST(NandImageAccessTest, WritesAndErasesOnlyWhenWritable)
{
    vxtest::TempDir dir;
    const std::string path = dir.WriteFile("img", LetteredImage(3));
    NandImageAccess read_only(path, E, 2048, {});
    EXPECT_EQ(ErrnoOf([&] { read_only.Write(0, "x", 1); }), EBADF);

    NandImageAccess image(path, E, 2048, {1}, true);
    image.Write(2 * E, "xyz", 3);
    EXPECT_EQ(image.EraseBlock(0), 0);
    EXPECT_EQ(ErrnoOf([&] { image.EraseBlock(E); }), EIO);
    EXPECT_EQ(ErrnoOf([&] { image.Write(3 * E - 1, "xy", 2); }), EINVAL);
    EXPECT_EQ(vxtest::ReadFile(path), std::string(E, '\xFF') + std::string(E, 'b') + "xyz" +
                                          std::string(E - 3, 'c'));
}

} // namespace
