// The kernel's MTD partition table, /proc/mtd, as the partition lookup
// scans it through the context's path.
//
// Input: the table's text.
//
// Property: a row found carries the name asked for and a device below
// /dev.
#include <cstdint>
#include <exception>
#include <string>

#include "fuzz_support.h"
#include "hardware/nand_access_linux.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    vxfuzz::FuzzContext::Get().WriteFile(MTD_TABLE_PATH, vxfuzz::Text(data, size));
    for (const char* name : {"flash0.nvram", "flash0.devid", "flash0.bolt", "flash0.rescue"}) {
        try {
            const MtdPartition partition = FindMtdPartition(name);
            VXFUZZ_CHECK(partition.name == name);
            VXFUZZ_CHECK(partition.device.starts_with("/dev/"));
        } catch (const std::exception&) {
        }
    }
    return 0;
}
