// The MTD device class against the kernel's own driver, on the simulated
// player. The player provides:
//   "test.scratch"  16 erase blocks of 128 KiB (2048-byte pages, 64 OOB bytes),
//                   factory bad blocks as listed in VX_TEST_SCRATCH_BAD_BLOCKS
//                   (3,5), the rest erased; these tests overwrite it freely;
//   "flash0.nvram"  8 erase blocks, bad blocks as listed in
//                   VX_TEST_NVRAM_BAD_BLOCKS (0,1), holding in its first good
//                   block the environment VX_FORMAT=1, VX_SERIAL=SIM0001,
//                   VX_OEM_MODEL=Sim=Model.
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "hardware/bootloader_environment.h"
#include "hardware/nand_access_linux.h"
#include "hardware/nand_block_access.h"
#include "platform/posix_helpers.h"
#include "support/kernel_log.h"
#include "support/sandbox.h"

namespace {

constexpr std::size_t E = 128 * 1024;
constexpr std::size_t BLOCKS = 16;

std::set<std::size_t> BadBlocksFromEnvironment(const char* variable)
{
    const char* text = std::getenv(variable);
    if (text == nullptr)
        ADD_FAILURE() << variable << " is not set by the simulated player";
    std::set<std::size_t> blocks;
    std::istringstream in(text ? text : "");
    for (std::string item; std::getline(in, item, ',');)
        blocks.insert(std::stoul(item));
    return blocks;
}

class ScratchPartitionTest : public testing::Test {
protected:
    void SetUp() override
    {
        m_bad = BadBlocksFromEnvironment("VX_TEST_SCRATCH_BAD_BLOCKS");
        m_partition = FindMtdPartition("test.scratch");
        m_nand = LinuxNandAccess::Create(m_partition);
    }

    bool IsBad(std::size_t block) const { return m_bad.count(block) != 0; }

    // The first good block at or after block.
    std::size_t GoodBlockFrom(std::size_t block) const
    {
        while (IsBad(block))
            ++block;
        return block;
    }

    std::string ReadPhysical(std::uint64_t offset, std::size_t length)
    {
        std::string data(length, '\0');
        data.resize(m_nand->Read(offset, data.data(), length));
        return data;
    }

    // Erases a good block and fills it with one byte value.
    void Fill(std::size_t block, char value)
    {
        m_nand->EraseBlock(block * E);
        const std::string data(E, value);
        m_nand->Write(block * E, data.data(), data.size());
    }

    std::set<std::size_t> m_bad;
    MtdPartition m_partition;
    NandAccess::Pointer m_nand;
};

TEST_F(ScratchPartitionTest, GeometryComesFromTheDevice)
{
    EXPECT_EQ(m_partition.size, BLOCKS * E);
    EXPECT_EQ(m_partition.erase_size, E);
    EXPECT_EQ(m_partition.device.rfind("/dev/mtd", 0), 0u) << m_partition.device;
    EXPECT_EQ(m_nand->GetEraseSize(), E);
    EXPECT_EQ(m_nand->GetWriteSize(), 2048u);
    EXPECT_EQ(m_nand->GetOobSize(), 64u);
    EXPECT_EQ(m_nand->GetTotalSize(), BLOCKS * E);

    // A size above the device's is cut down to it; a smaller one is kept.
    EXPECT_EQ(LinuxNandAccess::Create(m_partition.device, LinuxNandAccess::WHOLE_DEVICE)
                  ->GetTotalSize(),
              BLOCKS * E);
    EXPECT_EQ(LinuxNandAccess::Create(m_partition.device, 2 * E)->GetTotalSize(), 2 * E);
}

TEST_F(ScratchPartitionTest, SizeOfPartialEraseBlocksIsFatal)
{
    // A forked child shares the kernel log bound for this process.
    testing::FLAGS_gtest_death_test_style = "fast";
    const std::string log = vxtest::KernelLogFile();
    const std::size_t before = log.empty() ? 0 : vxtest::ReadFile(log).size();
    EXPECT_EXIT(LinuxNandAccess::Create(m_partition.device, E + 2048),
                testing::KilledBySignal(SIGABRT), "");
    if (!log.empty()) {
        const std::string report = vxtest::ReadFile(log).substr(before);
        EXPECT_NE(report.find(": m_total_size % m_erase_size == 0\n"), std::string::npos) << report;
        EXPECT_NE(report.find("ASSERT Executing lib/hardware/nand_access_linux:31:"
                              "LinuxNandAccessImpl::LinuxNandAccessImpl(const std::string&, "
                              "size_t)\n"),
                  std::string::npos)
            << report;
    } else {
        std::cout << "(report text not checked: the kernel log is not isolated here)\n";
    }
}

TEST_F(ScratchPartitionTest, BadBlocksAndTheKernelsBound)
{
    ASSERT_FALSE(m_bad.empty());
    for (std::size_t block = 0; block < BLOCKS; ++block) {
        EXPECT_EQ(m_nand->IsBadBlock(block * E), IsBad(block)) << "block " << block;
        // Any offset inside the block gives the same answer.
        EXPECT_EQ(m_nand->IsBadBlock(block * E + E - 1), IsBad(block)) << "block " << block;
    }
    // The kernel rejects a query one block past the end.
    try {
        m_nand->IsBadBlock(BLOCKS * E);
        FAIL() << "no exception";
    } catch (const corvid::ErrnoException& e) {
        EXPECT_EQ(e.GetErrno(), EINVAL);
        EXPECT_EQ(e.GetContext(), "");
    }
}

TEST_F(ScratchPartitionTest, WrittenDataReadsBackOneEraseBlockAtATime)
{
    const std::size_t block = GoodBlockFrom(0);
    m_nand->EraseBlock(block * E);
    EXPECT_TRUE(m_nand->IsOobErased(block * E));
    std::string oob(64, '\0');
    m_nand->ReadOob(block * E, oob.data(), 1000); // capped at the OOB size
    EXPECT_EQ(oob, std::string(64, '\xFF'));
    EXPECT_EQ(ReadPhysical(block * E, E), std::string(E, '\xFF'));

    std::string pages;
    for (int i = 0; i < 2 * 2048; ++i)
        pages += static_cast<char>(i * 7 + i / 256);
    m_nand->Write(block * E + 2048, pages.data(), pages.size());
    EXPECT_EQ(ReadPhysical(block * E + 2048, pages.size()), pages);

    // A read longer than an erase block returns exactly one erase block.
    const std::string whole = ReadPhysical(block * E, 3 * E);
    ASSERT_EQ(whole.size(), E);
    EXPECT_EQ(whole, std::string(2048, '\xFF') + pages + std::string(E - 3 * 2048, '\xFF'));
}

TEST_F(ScratchPartitionTest, EraseRangePassesOverBadBlocks)
{
    // Two good blocks with a bad one between them.
    const std::size_t bad = *m_bad.begin();
    ASSERT_GE(bad, 1u);
    ASSERT_FALSE(IsBad(bad - 1));
    ASSERT_FALSE(IsBad(bad + 1));
    Fill(bad - 1, 'p');
    Fill(bad + 1, 'q');

    EXPECT_NO_THROW(m_nand->EraseRange((bad - 1) * E, 3 * E));
    EXPECT_EQ(ReadPhysical((bad - 1) * E, E), std::string(E, '\xFF'));
    EXPECT_EQ(ReadPhysical((bad + 1) * E, E), std::string(E, '\xFF'));
    EXPECT_TRUE(m_nand->IsBadBlock(bad * E));
}

TEST_F(ScratchPartitionTest, LogicalReadsSkipTheBadBlocks)
{
    // The good block before the first bad one and the good block after it.
    const std::size_t bad = *m_bad.begin();
    const std::size_t before = bad - 1;
    const std::size_t after = GoodBlockFrom(bad + 1);
    Fill(before, 'x');
    Fill(after, 'y');

    // Logical offset of the end of `before`: bad blocks ahead of it count nothing.
    std::size_t good_before = 0;
    for (std::size_t block = 0; block <= before; ++block)
        good_before += IsBad(block) ? 0 : 1;
    std::string data(20, '\0');
    NandBlockAccess::Read(m_nand, good_before * E - 10, data.data(), data.size());
    EXPECT_EQ(data, std::string(10, 'x') + std::string(10, 'y'));

    // The logical end of the partition.
    const std::size_t good = BLOCKS - m_bad.size();
    char byte = 0;
    EXPECT_NO_THROW(NandBlockAccess::Read(m_nand, good * E - 1, &byte, 1));
    EXPECT_THROW(NandBlockAccess::Read(m_nand, good * E, &byte, 1), std::runtime_error);
}

TEST(NvramPartitionTest, EnvironmentIsReadPastTheBadBlocks)
{
    const std::set<std::size_t> bad = BadBlocksFromEnvironment("VX_TEST_NVRAM_BAD_BLOCKS");
    const NandAccess::Pointer nand = LinuxNandAccess::Create(FindMtdPartition("flash0.nvram"));
    for (const std::size_t block : bad)
        EXPECT_TRUE(nand->IsBadBlock(block * nand->GetEraseSize())) << "block " << block;

    const std::map<std::string, std::string> expected = {
        {"VX_FORMAT", "1"}, {"VX_OEM_MODEL", "Sim=Model"}, {"VX_SERIAL", "SIM0001"}};
    EXPECT_EQ(LoadBootloaderEnvironment(*nand).variables, expected);

    testing::internal::CaptureStderr();
    const BootloaderEnvironment environment = GetBootloaderEnvironment();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(environment.variables, expected);
    EXPECT_EQ(environment.Get("VX_HWREV"), "");
}

} // namespace
