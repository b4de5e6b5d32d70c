// The good-block view and the base erase behaviour, through the reads a
// recording in-memory partition sees.
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hardware/nand_block_access.h"
#include "support/fake_nand.h"

namespace {

using Calls = std::vector<FakeNand::Call>;
constexpr std::size_t E = 128 * 1024;

// Every byte of physical block b holds b + 1.
std::shared_ptr<FakeNand> NumberedNand(std::size_t blocks, std::set<std::size_t> bad)
{
    auto nand = FakeNand::Create(blocks * E, E);
    for (std::size_t b = 0; b < blocks; ++b)
        nand->Poke(b * E, std::string(E, static_cast<char>(b + 1)));
    nand->SetBadBlocks(bad);
    return nand;
}

FakeNand::Call R(std::uint64_t offset, std::size_t length) { return {"Read", offset, length}; }

// The bytes read, after the error's message when one was thrown.
std::string ReadLogical(FakeNand& nand, std::uint64_t offset, std::size_t length)
{
    nand.ClearCalls();
    std::string data(length, '\0'), error;
    try {
        NandBlockAccess::Read(nand, offset, data.data(), length);
    } catch (const std::runtime_error& e) {
        error = e.what() + std::string(":");
    }
    return error + data;
}

TEST(NandBlockAccessTest, ReadsTheGoodBlocksOneBlockAtATime)
{
    auto nand = NumberedNand(5, {0, 2});
    EXPECT_EQ(ReadLogical(*nand, 0, 3), "\2\2\2");
    EXPECT_EQ(ReadLogical(*nand, E, 3), "\4\4\4");
    EXPECT_EQ(nand->CallsOf("Read"), Calls{R(3 * E, 3)});

    // No device read crosses an erase block; a bad block in between is passed over.
    nand->SetBadBlocks({});
    EXPECT_EQ(ReadLogical(*nand, E - 5, 2 * E + 10),
              std::string(5, '\1') + std::string(E, '\2') + std::string(E, '\3') + "\4\4\4\4\4");
    EXPECT_EQ(nand->CallsOf("Read"), (Calls{R(E - 5, 5), R(E, E), R(2 * E, E), R(3 * E, 5)}));
    nand->SetBadBlocks({2});
    ReadLogical(*nand, E - 5, 2 * E + 10);
    EXPECT_EQ(nand->CallsOf("Read"), (Calls{R(E - 5, 5), R(E, E), R(3 * E, E), R(4 * E, 5)}));
}

TEST(NandBlockAccessTest, ReadsEndWithTheLastGoodBlock)
{
    const std::string beyond = "Seek beyond end of good NAND blocks:";
    auto nand = NumberedNand(4, {1, 3});
    EXPECT_EQ(ReadLogical(*nand, 2 * E - 1, 1), "\3");
    // What was read before the end stays in the buffer.
    EXPECT_EQ(ReadLogical(*nand, E, E + 1), beyond + std::string(E, '\3') + '\0');
    EXPECT_EQ(ReadLogical(*nand, 2 * E, 1), beyond + '\0');

    // Only bad blocks: the walk never asks about a block past the end.
    auto bad = NumberedNand(3, {0, 1, 2});
    bad->SetRejectOutOfRange(true);
    EXPECT_EQ(ReadLogical(*bad, 0, 1), beyond + '\0');
    // A zero-length read touches nothing.
    EXPECT_EQ(ReadLogical(*bad, 7 * E, 0), "");
    EXPECT_TRUE(bad->Calls().empty());
}

TEST(NandAccessTest, EraseRangeLeavesBadBlocksAlone)
{
    auto nand = NumberedNand(4, {1});
    nand->EraseRange(0, 2 * E + 1); // ends inside block 2, which is erased whole
    EXPECT_EQ(nand->CallsOf("EraseBlock"), (Calls{{"EraseBlock", 0, E}, {"EraseBlock", 2 * E, E}}));
}

} // namespace
