// The good-block view and the base erase behaviour of a partition, checked
// through the calls a recording in-memory partition sees.
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hardware/nand_block_access.h"
#include "support/memory_nand.h"

namespace {

using Call = MemoryNandAccess::Call;
constexpr std::size_t E = 128 * 1024;

// A partition whose every byte tells its physical block: block b holds b + 1.
std::shared_ptr<MemoryNandAccess> NumberedNand(std::size_t blocks)
{
    auto nand = MemoryNandAccess::Create(blocks * E, E);
    for (std::size_t b = 0; b < blocks; ++b)
        nand->Poke(b * E, std::string(E, static_cast<char>(b + 1)));
    return nand;
}

std::vector<Call> Queries(std::initializer_list<std::uint64_t> offsets)
{
    std::vector<Call> calls;
    for (const auto offset : offsets)
        calls.push_back(Call{"IsBadBlock", offset, 0});
    return calls;
}

std::string ReadLogical(NandAccess::Pointer nand, std::uint64_t offset, std::size_t length)
{
    std::string data(length, '\0');
    NandBlockAccess::Read(nand, offset, data.data(), length);
    return data;
}

TEST(NandBlockAccessTest, LogicalOffsetsSkipBadBlocks)
{
    auto nand = NumberedNand(5);
    nand->SetBadBlocks({0, 2});

    EXPECT_EQ(ReadLogical(nand, 0, 3), std::string(3, '\2'));
    EXPECT_EQ(nand->CallsOf("Read"), (std::vector<Call>{{"Read", E, 3}}));
    EXPECT_EQ(nand->CallsOf("IsBadBlock"), Queries({0, 0, E}));

    nand->ClearCalls();
    EXPECT_EQ(ReadLogical(nand, E, 3), std::string(3, '\4'));
    EXPECT_EQ(nand->CallsOf("Read"), (std::vector<Call>{{"Read", 3 * E, 3}}));
    // A block passed over while skipping is asked about when it is left;
    // a bad one at the position is asked twice: in the test and when leaving.
    EXPECT_EQ(nand->CallsOf("IsBadBlock"), Queries({0, E, 2 * E, 2 * E, 3 * E}));
}

TEST(NandBlockAccessTest, DeviceReadsNeverCrossAnEraseBlock)
{
    auto nand = NumberedNand(5);
    const std::string data = ReadLogical(nand, E - 5, 2 * E + 10);
    EXPECT_EQ(data, std::string(5, '\1') + std::string(E, '\2') + std::string(E, '\3') +
                        std::string(5, '\4'));
    EXPECT_EQ(nand->Calls(),
              (std::vector<Call>{{"IsBadBlock", 0, 0},
                                 {"Read", E - 5, 5},
                                 {"IsBadBlock", 0, 0},
                                 {"IsBadBlock", E, 0},
                                 {"Read", E, E},
                                 {"IsBadBlock", E, 0},
                                 {"IsBadBlock", 2 * E, 0},
                                 {"Read", 2 * E, E},
                                 {"IsBadBlock", 2 * E, 0},
                                 {"IsBadBlock", 3 * E, 0},
                                 {"Read", 3 * E, 5}}));

    // A bad block in between is passed over without a read.
    auto holed = NumberedNand(5);
    holed->SetBadBlocks({2});
    EXPECT_EQ(ReadLogical(holed, E - 5, 2 * E + 10),
              std::string(5, '\1') + std::string(E, '\2') + std::string(E, '\4') +
                  std::string(5, '\5'));
    EXPECT_EQ(holed->CallsOf("Read"), (std::vector<Call>{{"Read", E - 5, 5},
                                                        {"Read", E, E},
                                                        {"Read", 3 * E, E},
                                                        {"Read", 4 * E, 5}}));
}

TEST(NandBlockAccessTest, ReadsUpToTheEndOfTheLastGoodBlockAndNoFurther)
{
    auto nand = NumberedNand(4);
    nand->SetBadBlocks({1, 3});
    // Logical size: two good blocks.
    EXPECT_EQ(ReadLogical(nand, E, E), std::string(E, '\3'));
    EXPECT_EQ(ReadLogical(nand, 2 * E - 1, 1), "\3");

    std::string data(E + 1, '\0');
    try {
        NandBlockAccess::Read(nand, E, data.data(), data.size());
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Seek beyond end of good NAND blocks");
    }
    // What was read before the end stays in the buffer.
    EXPECT_EQ(data, std::string(E, '\3') + '\0');

    EXPECT_THROW(ReadLogical(nand, 2 * E, 1), std::runtime_error);
}

TEST(NandBlockAccessTest, PartitionOfBadBlocksOnly)
{
    auto nand = NumberedNand(3);
    nand->SetBadBlocks({0, 1, 2});
    nand->SetRejectOutOfRange(true);
    try {
        ReadLogical(nand, 0, 1);
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Seek beyond end of good NAND blocks");
    }
    // The walk never asks about a block past the end.
    EXPECT_EQ(nand->CallsOf("IsBadBlock"), Queries({0, 0, E, E, 2 * E, 2 * E}));
    EXPECT_TRUE(nand->CallsOf("Read").empty());

    nand->ClearCalls();
    EXPECT_NO_THROW(NandBlockAccess::Read(nand, 7 * E, nullptr, 0));
    EXPECT_TRUE(nand->Calls().empty());
}

TEST(NandBlockAccessTest, FirstGoodBlockWalk)
{
    auto nand = NumberedNand(4);
    nand->SetBadBlocks({0, 1});
    EXPECT_EQ(NandBlockAccess::FindFirstGoodBlock(*nand), 2 * E);
    EXPECT_EQ(nand->Calls(), Queries({0, E, 2 * E}));

    // Every block bad: one query past the end, whose answer does not matter.
    nand->SetBadBlocks({0, 1, 2, 3});
    nand->ClearCalls();
    EXPECT_EQ(NandBlockAccess::FindFirstGoodBlock(*nand), 4 * E);
    EXPECT_EQ(nand->Calls(), Queries({0, E, 2 * E, 3 * E, 4 * E}));
}

TEST(NandAccessTest, EraseRangeLeavesBadBlocksAlone)
{
    auto nand = MemoryNandAccess::Create(4 * E, E);
    nand->Poke(0, std::string(4 * E, '\0'));
    nand->SetBadBlocks({1});
    // The range ends inside block 2, which is still erased whole.
    EXPECT_NO_THROW(nand->EraseRange(0, 2 * E + 1));
    EXPECT_EQ(nand->CallsOf("EraseBlock"),
              (std::vector<Call>{{"EraseBlock", 0, E}, {"EraseBlock", 2 * E, E}}));
    EXPECT_EQ(nand->Peek(E, E), std::string(E, '\0'));
    EXPECT_EQ(nand->Peek(3 * E, E), std::string(E, '\0'));
    EXPECT_EQ(nand->Peek(2 * E, E), std::string(E, '\xFF'));

    nand->ClearCalls();
    nand->EraseAll();
    EXPECT_EQ(nand->CallsOf("EraseBlock").size(), 3u);
    EXPECT_EQ(nand->Peek(3 * E, E), std::string(E, '\xFF'));
}

} // namespace
