// Partition access: the /proc/mtd lookup (the device class is tested on the
// simulated player), image files, the good-block view, the base erase.
#include <set>
#include <stdexcept>
#include <tuple>

#include <gtest/gtest.h>

#include "hardware/nand_access_linux.h"
#include "platform/nand_block_access.h"
#include "hardware/nand_image_access.h"
#include "support/fake_context.h"
#include "support/oracles.h"

namespace {

using vxtest::WhatOf;

TEST(MtdTableTest, NameMatchingAndMalformedTables)
{
    FakeContext context;
    // The device found, or the message of the error.
    const auto lookup = [&](const std::string& name, const std::string& table) {
        context.WriteFile(MTD_TABLE_PATH, table);
        std::string device;
        const std::string error = WhatOf([&] { device = FindMtdPartition(name).device; });
        return device.empty() ? error : device;
    };
    const std::string header = "dev:    size   erasesize  name\n";
    const std::string rows = header + "mtd4: 00100000 00020000 flash0.nvram\n"
                                      "mtd5: 00200000 00020000 \"flash0.nvram\"\n"
                                      "mtd6 00020000 00020000 \"half\n"
                                      "mtd13:: 00040000 00020000 other\"\n";
    context.WriteFile(MTD_TABLE_PATH, rows);
    const MtdPartition other = FindMtdPartition("other");
    // One colon is removed from the device column.
    EXPECT_EQ(std::tie(other.device, other.size, other.erase_size, other.name),
              std::make_tuple("/dev/mtd13:", 0x40000u, 0x20000u, "other"));
    EXPECT_EQ(lookup("flash0.nvram", rows), "/dev/mtd4"); // the first match; quotes optional
    EXPECT_EQ(lookup("half", rows), "/dev/mtd6");         // one quote dropped on its own
    const std::string none = "Failed to find NAND partition named ";
    for (const std::string name : {"nvram", "FLASH0.NVRAM", "flash0.nvram2"})
        EXPECT_EQ(lookup(name, rows), none + "'" + name + "'");

    EXPECT_EQ(lookup("a", ""), "Failed to read /proc/mtd");
    // A row that does not scan ends the search; so does a short last row.
    EXPECT_EQ(lookup("b", header + "mtd0: 0020zz00 00020000 a\nmtd1: 1 1 b\n"), none + "'b'");
    EXPECT_EQ(lookup("b", header + "mtd1: 00100000 00020000\n"), none + "'b'");
    const std::string long_name(3000, 'n');
    EXPECT_EQ(lookup(long_name, header + "mtd9: 1 1 \"" + long_name + "\"\n"), "/dev/mtd9");

    std::remove(context.Path(MTD_TABLE_PATH).c_str());
    EXPECT_EQ(WhatOf([] { FindMtdPartition("flash0.nvram"); }), "No such file or directory (errno 2)");
}

TEST(NandImageAccessTest, ReadsWritesAndErasesBlocksOfTheFile)
{
    constexpr std::size_t E = 4096;
    vxtest::TempDir dir;
    const std::string path = dir.WriteFile(
        "img", std::string(E, 'a') + std::string(E, 'b') + std::string(E, 'c') + std::string(E, 'd'));
    EXPECT_THROW(NandImageAccess(path, 3000, 1000, {}), std::runtime_error); // not whole blocks
    EXPECT_THROW(NandImageAccess(path, E, 3000, {}), std::runtime_error);
    EXPECT_THROW(NandImageAccess(path, E, 2048, {4}), std::runtime_error);

    const auto nand = NandImageAccess::Create(path, E, 2048, {});
    // One erase block at most, from any offset; fewer only at the end.
    std::string buffer(3 * E, '\0');
    EXPECT_EQ(nand->Read(E / 2, buffer.data(), buffer.size()), E);
    EXPECT_EQ(nand->Read(4 * E - 3, buffer.data(), buffer.size()), 3u);
    EXPECT_EQ(buffer.substr(0, 3), "ddd");

    EXPECT_EQ(WhatOf([&] { nand->Write(0, "x", 1); }), "Write: Bad file descriptor (errno 9)");
    NandImageAccess image(path, E, 2048, {1}, true);
    image.Write(2 * E, "xyz", 3);
    EXPECT_EQ(image.EraseBlock(0), 0);
    EXPECT_EQ(WhatOf([&] { image.EraseBlock(E); }), "EraseBlock: Input/output error (errno 5)");
    EXPECT_EQ(WhatOf([&] { image.Write(4 * E - 1, "xy", 2); }), "Write: Invalid argument (errno 22)");
    EXPECT_EQ(vxtest::ReadFile(path), std::string(E, '\xFF') + std::string(E, 'b') + "xyz" +
                                          std::string(E - 3, 'c') + std::string(E, 'd'));
}

constexpr std::size_t E = 128 * 1024;

// Every byte of physical block b holds b + 1.
std::shared_ptr<MemoryNand> NumberedNand(std::size_t blocks, std::set<std::size_t> bad)
{
    auto nand = std::make_shared<MemoryNand>(blocks * E, E);
    for (std::size_t b = 0; b < blocks; ++b)
        nand->Put(b * E, std::string(E, static_cast<char>(b + 1)));
    nand->bad_blocks = bad;
    return nand;
}

// The bytes read, after the error's message when one was thrown.
std::string ReadLogical(MemoryNand& nand, std::uint64_t offset, std::size_t length)
{
    nand.reads.clear();
    std::string data(length, '\0'), error;
    try {
        NandBlockAccess::Read(nand, offset, data.data(), length);
    } catch (const std::runtime_error& e) {
        error = e.what() + std::string(":");
    }
    return error + data;
}

TEST(NandBlockAccessTest, ReadsTheGoodBlocksOneBlockAtATimeUpToTheLast)
{
    using Reads = MemoryNand::Reads;
    auto nand = NumberedNand(5, {0, 2});
    EXPECT_EQ(ReadLogical(*nand, 0, 3), "\2\2\2");
    EXPECT_EQ(ReadLogical(*nand, E, 3), "\4\4\4");
    EXPECT_EQ(nand->reads, (Reads{{3 * E, 3}}));

    // No device read crosses an erase block; a bad block in between is passed over.
    nand->bad_blocks = {};
    EXPECT_EQ(ReadLogical(*nand, E - 5, 2 * E + 10),
              std::string(5, '\1') + std::string(E, '\2') + std::string(E, '\3') + "\4\4\4\4\4");
    EXPECT_EQ(nand->reads, (Reads{{E - 5, 5}, {E, E}, {2 * E, E}, {3 * E, 5}}));
    nand->bad_blocks = {2};
    ReadLogical(*nand, E - 5, 2 * E + 10);
    EXPECT_EQ(nand->reads, (Reads{{E - 5, 5}, {E, E}, {3 * E, E}, {4 * E, 5}}));

    // Reads end with the last good block.
    const std::string beyond = "Seek beyond end of good NAND blocks:";
    nand = NumberedNand(4, {1, 3});
    EXPECT_EQ(ReadLogical(*nand, 2 * E - 1, 1), "\3");
    // What was read before the end stays in the buffer.
    EXPECT_EQ(ReadLogical(*nand, E, E + 1), beyond + std::string(E, '\3') + '\0');
    EXPECT_EQ(ReadLogical(*nand, 2 * E, 1), beyond + '\0');

    // Only bad blocks, on a device that refuses queries past its end.
    auto bad = NumberedNand(3, {0, 1, 2});
    bad->reject_out_of_range = true;
    EXPECT_EQ(ReadLogical(*bad, 0, 1), beyond + '\0');
    EXPECT_EQ(ReadLogical(*bad, 7 * E, 0), ""); // a zero-length read looks for no block
}

// The factory's layout against the tests' own: data over the good blocks from
// a logical offset on, cut short at the last good block; the image of a
// partition with its bad blocks zero-filled.
TEST(PartitionLayoutTest, LaysDataOverTheGoodBlocksLikeTheOracle)
{
    constexpr std::size_t B = 16; // erase size
    const struct { std::size_t blocks; std::set<std::size_t> bad; std::size_t offset, size, fitted; } cases[] = {
        {4, {}, 0, 40, 40},         {4, {0, 2}, 0, 20, 20},   {4, {1}, 5, 30, 30},
        {4, {0}, 17, 30, 30},       {4, {1, 2}, 0, 40, 32},   {4, {0, 1, 2, 3}, 0, 1, 0},
        {3, {2}, 31, 5, 1},         {3, {}, 48, 5, 0},        {5, {4}, 0, 0, 0},
    };
    for (const auto& c : cases) {
        std::string data(c.size, 'd');
        for (std::size_t i = 0; i < c.size; ++i)
            data[i] = char('a' + i % 26);
        MemoryNand nand(c.blocks * B, B);
        nand.bad_blocks = c.bad;
        EXPECT_EQ(LayOverGoodBlocks(nand, c.offset, data), c.fitted) << c.offset;
        EXPECT_EQ(nand.Contents(), vxtest::GoodBlockLayout(data.substr(0, c.fitted), c.offset, c.blocks, B,
                                                           c.bad, '\xFF'))
            << c.offset;
        if (c.offset != 0)
            continue;
        std::string image;
        const std::string error = WhatOf([&] { image = MakePartitionImage(data, c.blocks * B, B, c.bad); });
        EXPECT_EQ(error, c.fitted == c.size ? "no exception" : "partition data larger than its good blocks");
        EXPECT_EQ(image, c.fitted == c.size ? vxtest::GoodBlockLayout(data, 0, c.blocks, B, c.bad, '\0') : "");
    }
}

// The in-memory partition reads like the kernel's MTD device: one erase
// block at most, fewer bytes at the end, EINVAL past it; its range erase
// leaves bad blocks alone.
TEST(PartitionLayoutTest, MemoryNandReadsLikeAnMtdDeviceAndErasesAroundBadBlocks)
{
    MemoryNand nand(3 * 8, 8);
    nand.Put(4, std::string(30, 'x')); // dropped past the end
    std::string buffer(20, '-');
    EXPECT_EQ(nand.Read(2, buffer.data(), 20), 8u);
    EXPECT_EQ(buffer.substr(0, 8), "\xFF\xFFxxxxxx");
    EXPECT_EQ(nand.Read(20, buffer.data(), 20) + nand.Read(24, buffer.data(), 20), 4u);
    EXPECT_EQ(WhatOf([&] { nand.Read(25, buffer.data(), 1); }), "NandBlockAccess::Read: Invalid argument (errno 22)");
    EXPECT_EQ(nand.reads, (MemoryNand::Reads{{2, 20}, {20, 20}, {24, 20}, {25, 1}}));
    EXPECT_EQ(nand.Contents(), "\xFF\xFF\xFF\xFF" + std::string(20, 'x'));

    nand.Put(0, std::string(24, 'x'));
    nand.bad_blocks = {0};     // the fake refuses to erase it
    nand.EraseRange(0, 8 + 1); // ends inside block 1, which is erased whole; block 2 stays
    EXPECT_EQ(nand.Contents(), std::string(8, 'x') + std::string(8, '\xFF') + std::string(8, 'x'));
}

} // namespace
