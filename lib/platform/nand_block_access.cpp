#include "platform/nand_block_access.h"

#include <algorithm>
#include <stdexcept>

namespace NandBlockAccess {

namespace {

[[noreturn]] void ThrowBeyondEnd()
{
    throw std::runtime_error("Seek beyond end of good NAND blocks");
}

} // namespace

void Read(NandAccess& nand, std::uint64_t logical_offset, void* buffer, std::size_t length)
{
    if (length == 0)
        return;

    const std::uint64_t erase_size = nand.GetEraseSize();
    const std::uint64_t blocks = erase_size == 0 ? 0 : nand.GetTotalSize() / erase_size;
    auto* out = static_cast<std::uint8_t*>(buffer);

    std::uint64_t block = 0;             // physical block index
    std::size_t done = 0;                // bytes copied into buffer
    std::uint64_t skip = logical_offset; // logical bytes still to pass over

    while (done < length) {
        // Locate: stop at a good block that holds the next byte. Leaving a
        // good block consumes a block of logical bytes; a bad one consumes
        // nothing.
        while (!(skip < erase_size && !nand.IsBadBlock(block * erase_size))) {
            if (block >= blocks)
                ThrowBeyondEnd();
            const bool left_good = !nand.IsBadBlock(block * erase_size);
            ++block;
            if (left_good)
                skip -= erase_size;
            if (block >= blocks)
                ThrowBeyondEnd();
        }

        const std::size_t chunk =
            static_cast<std::size_t>(std::min<std::uint64_t>(length - done, erase_size - skip));
        const std::size_t got = nand.Read(block * erase_size + skip, out + done, chunk);
        if (got != chunk)
            throw std::runtime_error("Short read from NAND");
        // A chunk that ends the block makes the next locate step move on to
        // offset 0 of the next good block.
        if (chunk == erase_size - skip)
            skip = erase_size;
        done += chunk;
    }
}

void Read(const NandAccess::Pointer& nand, std::uint64_t logical_offset, void* buffer,
          std::size_t length)
{
    Read(*nand, logical_offset, buffer, length);
}

std::uint64_t FindFirstGoodBlock(NandAccess& nand)
{
    const std::uint64_t erase_size = nand.GetEraseSize();
    const std::uint64_t total = nand.GetTotalSize();
    std::uint64_t offset = 0;
    for (;;) {
        if (!nand.IsBadBlock(offset))
            break;
        if (offset >= total)
            break;
        if (erase_size == 0)
            return total;
        offset += erase_size;
    }
    return offset;
}

} // namespace NandBlockAccess
