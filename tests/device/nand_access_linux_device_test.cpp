// The MTD device class against the kernel's own driver, on the simulated
// player's partitions "test.scratch" and "flash0.nvram" (see docs/design.md).
#include <cstdlib>
#include <map>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "hardware/bootloader_environment.h"
#include "hardware/context.h"
#include "hardware/nand_access_linux.h"
#include "hardware/nand_block_access.h"

namespace {

// The device tests read the player's own devices (one context for the
// whole program).
const LiveContext g_context;

constexpr std::size_t E = 128 * 1024;
constexpr std::size_t BLOCKS = 16;

// The bad blocks the simulated player was set up with, as "3,5".
std::string ScenarioBadBlocks(const char* variable)
{
    const char* text = std::getenv(variable);
    return text ? text : "(not set by the simulated player)";
}

// The bad blocks the device reports, as "3,5".
std::string BadBlocks(NandAccess& nand)
{
    std::string list;
    for (std::size_t block = 0; block < nand.GetTotalSize() / E; ++block)
        if (nand.IsBadBlock(block * E + E - 1)) // any offset inside the block
            list += (list.empty() ? "" : ",") + std::to_string(block);
    return list;
}

class ScratchPartitionTest : public testing::Test {
protected:
    // m_b is the first bad block, with good blocks on both sides.
    void SetUp() override
    {
        ASSERT_GE(m_b, 1u);
        ASSERT_FALSE(m_nand->IsBadBlock((m_b - 1) * E) || m_nand->IsBadBlock((m_b + 1) * E));
    }

    std::string ReadPhysical(std::uint64_t offset, std::size_t length)
    {
        std::string data(length, '\0');
        data.resize(m_nand->Read(offset, data.data(), length));
        return data;
    }

    void Fill(std::size_t block, char value)
    {
        m_nand->EraseBlock(block * E);
        const std::string data(E, value);
        m_nand->Write(block * E, data.data(), data.size());
    }

    const std::size_t m_b =
        std::strtoul(ScenarioBadBlocks("VX_TEST_SCRATCH_BAD_BLOCKS").c_str(), nullptr, 10);
    const MtdPartition m_partition = FindMtdPartition("test.scratch");
    const NandAccess::Pointer m_nand = LinuxNandAccess::Create(m_partition);
};

TEST_F(ScratchPartitionTest, GeometryComesFromTheDevice)
{
    EXPECT_EQ(std::make_tuple(m_nand->GetEraseSize(), m_nand->GetWriteSize(),
                              m_nand->GetOobSize(), m_nand->GetTotalSize()),
              std::make_tuple(E, std::size_t{2048}, std::size_t{64}, BLOCKS * E));
}

TEST_F(ScratchPartitionTest, RequestedSizeIsCutToTheDevice)
{
    EXPECT_EQ(LinuxNandAccess::Create(m_partition.device, 2 * E)->GetTotalSize(), 2 * E);
    EXPECT_EQ(LinuxNandAccess::Create(m_partition.device, LinuxNandAccess::WHOLE_DEVICE)
                  ->GetTotalSize(),
              BLOCKS * E);
}

TEST_F(ScratchPartitionTest, BadBlocksAreTheScenarios)
{
    EXPECT_EQ(BadBlocks(*m_nand), ScenarioBadBlocks("VX_TEST_SCRATCH_BAD_BLOCKS"));
}

TEST_F(ScratchPartitionTest, OobIsErasedAfterErase)
{
    m_nand->EraseBlock((m_b - 1) * E);
    m_nand->WriteOob((m_b - 1) * E + 8, "\0", 1); // OOB byte 8 of the first page
    EXPECT_FALSE(m_nand->IsOobErased((m_b - 1) * E));
    m_nand->EraseBlock((m_b - 1) * E);
    EXPECT_TRUE(m_nand->IsOobErased((m_b - 1) * E));
    std::string oob(100, '\0');
    m_nand->ReadOob((m_b - 1) * E, oob.data(), oob.size()); // capped at the OOB size
    EXPECT_EQ(oob, std::string(64, '\xFF') + std::string(36, '\0'));
}

TEST_F(ScratchPartitionTest, ReadReturnsAtMostOneEraseBlock)
{
    Fill(m_b - 1, 'p');
    EXPECT_EQ(ReadPhysical((m_b - 1) * E, 3 * E), std::string(E, 'p'));
}

TEST_F(ScratchPartitionTest, EraseRangePassesOverABadBlock)
{
    Fill(m_b - 1, 'p');
    Fill(m_b + 1, 'q');
    EXPECT_NO_THROW(m_nand->EraseRange((m_b - 1) * E, 3 * E));
    EXPECT_EQ(ReadPhysical((m_b - 1) * E, E) + ReadPhysical((m_b + 1) * E, E),
              std::string(2 * E, '\xFF'));
    EXPECT_TRUE(m_nand->IsBadBlock(m_b * E));
}

TEST_F(ScratchPartitionTest, WrittenPagesReadBack)
{
    std::string pages(2 * 2048, '\0');
    for (std::size_t i = 0; i < pages.size(); ++i)
        pages[i] = static_cast<char>(i * 7 + i / 256);
    m_nand->EraseBlock((m_b + 1) * E);
    m_nand->Write((m_b + 1) * E + 2048, pages.data(), pages.size());
    EXPECT_EQ(ReadPhysical((m_b + 1) * E, 4 * 2048),
              std::string(2048, '\xFF') + pages + std::string(2048, '\xFF'));
}

TEST_F(ScratchPartitionTest, LogicalReadSkipsABadBlock)
{
    Fill(m_b - 1, 'x');
    Fill(m_b + 1, 'y');
    std::string data(20, '\0');
    NandBlockAccess::Read(m_nand, m_b * E - 10, data.data(), data.size()); // no bad block before
    EXPECT_EQ(data, std::string(10, 'x') + std::string(10, 'y'));
}

TEST(NvramPartitionTest, EnvironmentIsReadPastTheBadBlocks)
{
    const NandAccess::Pointer nand = LinuxNandAccess::Create(FindMtdPartition("flash0.nvram"));
    EXPECT_EQ(BadBlocks(*nand), ScenarioBadBlocks("VX_TEST_NVRAM_BAD_BLOCKS"));
    testing::internal::CaptureStderr();
    const BootloaderEnvironment environment = GetBootloaderEnvironment();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(environment.variables, (std::map<std::string, std::string>{
                                         {"VX_FORMAT", "1"},
                                         {"VX_OEM_MODEL", "Sim=Model"},
                                         {"VX_SERIAL", "SIM0001"}}));
}

} // namespace
