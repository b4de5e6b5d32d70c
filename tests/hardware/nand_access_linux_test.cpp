// The /proc/mtd lookup. The device class itself is exercised against the
// kernel's MTD driver on the simulated player (tests/device).
#include <cerrno>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "hardware/nand_access_linux.h"
#include "platform/posix_helpers.h"
#include "support/sandbox.h"

namespace {

// The table as the kernel prints it.
const char* const KERNEL_TABLE = "dev:    size   erasesize  name\n"
                                 "mtd0: 00200000 00020000 \"flash0.bolt\"\n"
                                 "mtd1: 00100000 00020000 \"flash0.nvram\"\n"
                                 "mtd2: 00a00000 00020000 \"flash0.rescue\"\n"
                                 "mtd13: 00040000 00020000 \"flash0.devid\"\n";

class MtdTableTest : public testing::Test {
protected:
    std::string Table(const std::string& content) { return m_dir.WriteFile("mtd", content); }

    // The message of the runtime error a lookup throws.
    std::string FailureOf(const std::string& name, const std::string& content)
    {
        try {
            FindMtdPartition(name, Table(content));
        } catch (const std::runtime_error& e) {
            return e.what();
        }
        return "(found)";
    }

    vxtest::TempDir m_dir;
};

TEST_F(MtdTableTest, FindsRowsOfTheKernelFormat)
{
    const std::string path = Table(KERNEL_TABLE);
    const MtdPartition nvram = FindMtdPartition("flash0.nvram", path);
    EXPECT_EQ(nvram.device, "/dev/mtd1");
    EXPECT_EQ(nvram.size, 0x100000u);
    EXPECT_EQ(nvram.erase_size, 0x20000u);
    EXPECT_EQ(nvram.name, "flash0.nvram");

    const MtdPartition devid = FindMtdPartition("flash0.devid", path);
    EXPECT_EQ(devid.device, "/dev/mtd13");
    EXPECT_EQ(devid.size, 0x40000u);
}

TEST_F(MtdTableTest, NamesMatchWholeAndExactlyWithOrWithoutQuotes)
{
    const std::string table = "dev:    size   erasesize  name\n"
                              "mtd4: 00100000 00020000 flash0.nvram\n"
                              "mtd5: 00200000 00020000 \"flash0.nvram\"\n"
                              "mtd6 00020000 00020000 \"half\n"
                              "mtd7:: 00020000 00020000 other\"\n";
    const std::string path = Table(table);
    // The first match wins; an unquoted column matches like a quoted one.
    EXPECT_EQ(FindMtdPartition("flash0.nvram", path).device, "/dev/mtd4");
    // One quote at either end is dropped on its own; one colon is removed.
    EXPECT_EQ(FindMtdPartition("half", path).device, "/dev/mtd6");
    EXPECT_EQ(FindMtdPartition("other", path).device, "/dev/mtd7:");

    EXPECT_EQ(FailureOf("nvram", table), "Failed to find NAND partition named 'nvram'");
    EXPECT_EQ(FailureOf("FLASH0.NVRAM", table),
              "Failed to find NAND partition named 'FLASH0.NVRAM'");
    EXPECT_EQ(FailureOf("flash0.nvram2", table),
              "Failed to find NAND partition named 'flash0.nvram2'");
}

TEST_F(MtdTableTest, MalformedTablesEndTheSearch)
{
    EXPECT_EQ(FailureOf("flash0.nvram", ""), "Failed to read /proc/mtd");
    EXPECT_EQ(FailureOf("flash0.nvram", "  \n\n"), "Failed to read /proc/mtd");
    EXPECT_EQ(FailureOf("flash0.nvram", "dev:    size   erasesize  name\n"),
              "Failed to find NAND partition named 'flash0.nvram'");
    // A row that does not scan stops the search even when a later row matches.
    EXPECT_EQ(FailureOf("flash0.nvram", "dev:    size   erasesize  name\n"
                                        "mtd0: 0020zz00 00020000 \"flash0.bolt\"\n"
                                        "mtd1: 00100000 00020000 \"flash0.nvram\"\n"),
              "Failed to find NAND partition named 'flash0.nvram'");
    // A row cut short at the end of the file.
    EXPECT_EQ(FailureOf("flash0.nvram", "dev:    size   erasesize  name\n"
                                        "mtd1: 00100000 00020000\n"),
              "Failed to find NAND partition named 'flash0.nvram'");
    // A long name is read whole, not cut at a buffer size.
    const std::string long_name(3000, 'n');
    EXPECT_EQ(FindMtdPartition(long_name,
                               Table(std::string("dev: size erasesize name\nmtd9: 1 1 \"") +
                                     long_name + "\"\n"))
                  .device,
              "/dev/mtd9");
}

TEST_F(MtdTableTest, UnreadableTableThrowsTheErrnoWithoutPath)
{
    try {
        FindMtdPartition("flash0.nvram", m_dir.Path() + "/absent");
        FAIL() << "no exception";
    } catch (const corvid::ErrnoException& e) {
        EXPECT_EQ(e.GetErrno(), ENOENT);
        EXPECT_EQ(e.GetContext(), "");
    }
}

TEST(LinuxNandAccessTest, OpeningFailuresThrowErrnoExceptions)
{
    vxtest::TempDir dir;
    const std::string missing = dir.Path() + "/mtd99";
    try {
        LinuxNandAccess::Create(missing, LinuxNandAccess::WHOLE_DEVICE);
        FAIL() << "no exception";
    } catch (const corvid::ErrnoException& e) {
        EXPECT_EQ(e.GetErrno(), ENOENT);
        EXPECT_EQ(e.GetContext(), missing);
    }
    // A regular file is no MTD device: the geometry query fails, without text.
    try {
        LinuxNandAccess::Create(MtdPartition{dir.WriteFile("plain", "x"), 0x20000, 0x20000, "p"});
        FAIL() << "no exception";
    } catch (const corvid::ErrnoException& e) {
        EXPECT_EQ(e.GetErrno(), ENOTTY);
        EXPECT_EQ(e.GetContext(), "");
    }
}

} // namespace
