// Partitions held in raw image files.
#include <cerrno>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "hardware/nand_image_access.h"
#include "support/oracles.h"
#include "support/programs.h"

namespace {

constexpr std::size_t E = 4096;

TEST(NandImageAccessTest, ReadsWritesAndErasesBlocksOfTheFile)
{
    vxtest::TempDir dir;
    const std::string path = dir.WriteFile(
        "img", std::string(E, 'a') + std::string(E, 'b') + std::string(E, 'c') +
                   std::string(E, 'd'));
    EXPECT_THROW(NandImageAccess(path, 3000, 1000, {}), std::runtime_error); // not whole blocks
    EXPECT_THROW(NandImageAccess(path, E, 3000, {}), std::runtime_error);
    EXPECT_THROW(NandImageAccess(path, E, 2048, {4}), std::runtime_error);

    const auto nand = NandImageAccess::Create(path, E, 2048, {0, 2});
    EXPECT_TRUE(nand->IsBadBlock(2 * E + 17));
    EXPECT_FALSE(nand->IsBadBlock(E) || nand->IsBadBlock(4 * E)); // past the end: not listed
    // One erase block at most, from any offset; fewer only at the end.
    std::string buffer(3 * E, '\0');
    EXPECT_EQ(nand->Read(E / 2, buffer.data(), buffer.size()), E);
    EXPECT_EQ(nand->Read(4 * E - 3, buffer.data(), buffer.size()), 3u);
    EXPECT_EQ(buffer.substr(0, 3), "ddd");

    const auto errno_of = [](auto action) { return vxtest::ErrnoOf(action).first; };
    EXPECT_EQ(errno_of([&] { nand->Write(0, "x", 1); }), EBADF); // read-only
    NandImageAccess image(path, E, 2048, {1}, true);
    image.Write(2 * E, "xyz", 3);
    EXPECT_EQ(image.EraseBlock(0), 0);
    EXPECT_EQ(errno_of([&] { image.EraseBlock(E); }), EIO);
    EXPECT_EQ(errno_of([&] { image.Write(4 * E - 1, "xy", 2); }), EINVAL);
    EXPECT_EQ(vxtest::ReadFile(path), std::string(E, '\xFF') + std::string(E, 'b') + "xyz" +
                                          std::string(E - 3, 'c') + std::string(E, 'd'));
}

} // namespace
