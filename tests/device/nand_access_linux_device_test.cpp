// What the fakes cannot show: the MTD device class against the kernel's own
// driver, on the simulated player's partition "test.scratch" (docs/design.md).
#include <tuple>

#include <gtest/gtest.h>

#include "hardware/context.h"
#include "hardware/nand_access_linux.h"

namespace {

// The device tests read the player's own devices (one context for the
// whole program).
const LiveContext g_context;

constexpr std::size_t E = 128 * 1024;
constexpr std::size_t GOOD = 2 * E; // block 2 of the scratch partition: good, 3 is bad

TEST(ScratchPartition, GeometryAndBadBlocksComeFromTheDevice)
{
    const MtdPartition partition = FindMtdPartition("test.scratch");
    const NandAccess::Pointer nand = LinuxNandAccess::Create(partition);
    EXPECT_EQ(std::make_tuple(nand->GetEraseSize(), nand->GetWriteSize(),
                              nand->GetOobSize(), nand->GetTotalSize()),
              std::make_tuple(E, std::size_t{2048}, std::size_t{64}, 16 * E));
    // A requested size is cut to the device.
    const auto size = [&](std::size_t max) {
        return LinuxNandAccess::Create(partition.device, max)->GetTotalSize();
    };
    EXPECT_EQ(size(2 * E), 2 * E);
    EXPECT_EQ(size(LinuxNandAccess::WHOLE_DEVICE), 16 * E);
    // The bad blocks the simulated player was set up with (3 and 5), asked
    // about at any offset inside the block.
    std::string bad;
    for (std::size_t block = 0; block < 16; ++block)
        bad += nand->IsBadBlock(block * E + E - 1) ? 'B' : '.';
    EXPECT_EQ(bad, "...B.B..........");
}

TEST(ScratchPartition, EraseWriteAndReadPagesAndOob)
{
    const NandAccess::Pointer nand = LinuxNandAccess::Create(FindMtdPartition("test.scratch"));
    nand->EraseBlock(GOOD);
    nand->WriteOob(GOOD + 8, "\0", 1); // OOB byte 8 of the first page
    EXPECT_FALSE(nand->IsOobErased(GOOD));
    nand->EraseBlock(GOOD);
    EXPECT_TRUE(nand->IsOobErased(GOOD));
    std::string oob(100, '\0');
    nand->ReadOob(GOOD, oob.data(), oob.size()); // capped at the OOB size
    EXPECT_EQ(oob, std::string(64, '\xFF') + std::string(36, '\0'));

    // Written pages read back, at most one erase block at a time.
    std::string pages(2 * 2048, '\0');
    for (std::size_t i = 0; i < pages.size(); ++i)
        pages[i] = static_cast<char>(i * 7 + i / 256);
    nand->EraseBlock(GOOD);
    nand->Write(GOOD + 2048, pages.data(), pages.size());
    std::string read(3 * E, '\0');
    read.resize(nand->Read(GOOD, read.data(), read.size()));
    EXPECT_EQ(read, std::string(2048, '\xFF') + pages + std::string(E - 3 * 2048, '\xFF'));
}

} // namespace
