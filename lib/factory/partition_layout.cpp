#include "factory/partition_layout.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "platform/posix_helpers.h"

MemoryNand::MemoryNand(std::uint64_t total_size, std::size_t erase_size, std::size_t write_size)
    : m_total_size(total_size), m_erase_size(erase_size), m_write_size(write_size)
{
    if (erase_size == 0)
        throw std::invalid_argument("MemoryNand needs an erase size");
}

void MemoryNand::Put(std::uint64_t offset, std::string_view bytes)
{
    while (!bytes.empty() && offset < m_total_size) {
        const std::uint64_t index = offset / m_erase_size;
        const std::size_t in_block = offset % m_erase_size;
        const std::size_t n = std::min(bytes.size(), m_erase_size - in_block);
        auto [block, added] = m_blocks.try_emplace(index);
        if (added)
            block->second.assign(m_erase_size, '\xFF');
        block->second.replace(in_block, n, bytes.substr(0, n));
        bytes.remove_prefix(n);
        offset += n;
    }
}

std::string MemoryNand::Contents() const
{
    std::string contents(m_total_size, '\xFF');
    for (const auto& [index, block] : m_blocks) {
        const std::uint64_t start = index * m_erase_size;
        contents.replace(start, std::min<std::uint64_t>(block.size(), m_total_size - start), block);
    }
    return contents;
}

bool MemoryNand::IsBadBlock(std::uint64_t offset)
{
    if (offset >= m_total_size && reject_out_of_range)
        throw corvid::ErrnoException(EINVAL);
    return bad_blocks.count(offset / m_erase_size) != 0;
}

int MemoryNand::MarkBadBlock(std::uint64_t offset)
{
    bad_blocks.insert(offset / m_erase_size);
    return 0;
}

int MemoryNand::EraseBlock(std::uint64_t offset)
{
    if (offset >= m_total_size)
        throw corvid::ErrnoException(EINVAL);
    if (IsBadBlock(offset))
        throw corvid::ErrnoException(EIO);
    m_blocks.erase(offset / m_erase_size);
    return 0;
}

std::size_t MemoryNand::Read(std::uint64_t offset, void* buffer, std::size_t length)
{
    reads.emplace_back(offset, length);
    if (offset > m_total_size)
        throw corvid::ErrnoException(EINVAL, "NandBlockAccess::Read");
    const std::size_t n = std::min<std::uint64_t>({length, m_erase_size, m_total_size - offset});
    auto* out = static_cast<char*>(buffer);
    for (std::size_t done = 0; done < n;) {
        const std::uint64_t at = offset + done;
        const std::size_t in_block = at % m_erase_size;
        const std::size_t piece = std::min(n - done, m_erase_size - in_block);
        const auto block = m_blocks.find(at / m_erase_size);
        if (block == m_blocks.end())
            std::memset(out + done, 0xFF, piece);
        else
            std::memcpy(out + done, block->second.data() + in_block, piece);
        done += piece;
    }
    return n;
}

void MemoryNand::Write(std::uint64_t offset, const void* buffer, std::size_t length)
{
    if (offset > m_total_size || length > m_total_size - offset)
        throw corvid::ErrnoException(EINVAL, "NandBlockAccess::Write");
    Put(offset, std::string_view(static_cast<const char*>(buffer), length));
}

std::size_t LayOverGoodBlocks(NandAccess& nand, std::uint64_t logical_offset, std::string_view data)
{
    const std::size_t erase_size = nand.GetEraseSize();
    const std::uint64_t total_size = nand.GetTotalSize();
    const std::size_t size = data.size();
    for (std::uint64_t start = 0; start < total_size && !data.empty(); start += erase_size) {
        if (nand.IsBadBlock(start))
            continue;
        if (logical_offset >= erase_size) {
            logical_offset -= erase_size;
            continue;
        }
        if (start + logical_offset >= total_size)
            break; // a last block cut short
        const std::size_t n =
            std::min<std::uint64_t>({data.size(), erase_size - logical_offset, total_size - start - logical_offset});
        nand.Write(start + logical_offset, data.data(), n);
        data.remove_prefix(n);
        logical_offset = 0;
    }
    return size - data.size();
}

std::string MakePartitionImage(std::string_view data, std::uint64_t total_size, std::size_t erase_size,
                               const std::set<std::size_t>& bad_blocks)
{
    MemoryNand partition(total_size, erase_size);
    partition.bad_blocks = bad_blocks;
    for (const std::size_t block : bad_blocks)
        partition.Put(std::uint64_t(block) * erase_size, std::string(erase_size, '\0'));
    if (LayOverGoodBlocks(partition, 0, data) != data.size())
        throw std::runtime_error("partition data larger than its good blocks");
    return partition.Contents();
}
