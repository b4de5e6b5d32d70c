#include "platform/nand_access.h"

void NandAccess::EraseRange(std::uint64_t offset, std::uint64_t length)
{
    const std::uint64_t end = offset + length;
    const std::size_t step = GetEraseSize();
    if (step == 0)
        return;
    for (std::uint64_t block = offset; block < end; block += step) {
        if (!IsBadBlock(block))
            EraseBlock(block);
    }
}

void NandAccess::EraseAll()
{
    EraseRange(0, GetTotalSize());
}

void NandAccess::WriteBlock(std::uint64_t offset, const void* buffer, std::size_t length)
{
    Write(offset, buffer, length);
}
