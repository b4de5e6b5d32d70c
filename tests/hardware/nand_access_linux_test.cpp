// The /proc/mtd lookup and the opening failures. The device class itself is
// exercised against the kernel's MTD driver on the simulated player.
#include <cerrno>
#include <stdexcept>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "hardware/nand_access_linux.h"
#include "support/fake_context.h"
#include "support/oracles.h"

namespace {

using vxtest::ErrnoOf;
using vxtest::WhatOf;

TEST(MtdTableTest, NameMatchingAndMalformedTables)
{
    FakeContext context;
    // The device found, or the message of the error.
    const auto lookup = [&](const std::string& name, const std::string& table) {
        context.WriteFile(MTD_TABLE_PATH, table);
        try {
            return FindMtdPartition(name).device;
        } catch (const std::runtime_error& e) {
            return std::string(e.what());
        }
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
    EXPECT_EQ(ErrnoOf([] { FindMtdPartition("flash0.nvram"); }), std::make_pair(ENOENT, std::string()));
}

TEST(LinuxNandAccessTest, OpeningFailuresThrowErrnoExceptions)
{
    vxtest::TempDir dir;
    const std::string absent = dir.Path() + "/absent";
    EXPECT_EQ(ErrnoOf([&] { LinuxNandAccess::Create(absent, LinuxNandAccess::WHOLE_DEVICE); }),
              std::make_pair(ENOENT, absent));
    // A regular file is no MTD device: the geometry query fails, without text.
    const MtdPartition plain{dir.WriteFile("plain", "x"), 0x20000, 0x20000, "p"};
    EXPECT_EQ(ErrnoOf([&] { LinuxNandAccess::Create(plain); }), std::make_pair(ENOTTY, std::string()));
}

} // namespace
