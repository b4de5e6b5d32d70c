#include "support/memory_nand.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "platform/posix_helpers.h"

MemoryNandAccess::MemoryNandAccess(std::size_t total_size, std::size_t erase_size,
                                   std::size_t write_size, std::size_t oob_size)
    : m_erase_size(erase_size), m_write_size(write_size), m_oob_size(oob_size),
      m_data(total_size, 0xFF),
      m_oob(write_size ? total_size / write_size * oob_size : 0, 0xFF)
{
}

std::shared_ptr<MemoryNandAccess> MemoryNandAccess::Create(std::size_t total_size,
                                                           std::size_t erase_size,
                                                           std::size_t write_size,
                                                           std::size_t oob_size)
{
    return std::make_shared<MemoryNandAccess>(total_size, erase_size, write_size, oob_size);
}

void MemoryNandAccess::SetBadBlocks(const std::set<std::size_t>& block_indexes)
{
    m_bad_blocks = block_indexes;
}

void MemoryNandAccess::Poke(std::uint64_t offset, const std::string& bytes)
{
    CheckRange(offset, bytes.size());
    std::memcpy(m_data.data() + offset, bytes.data(), bytes.size());
}

void MemoryNandAccess::PokeGood(const std::string& bytes)
{
    std::size_t done = 0;
    for (std::size_t block = 0; done < bytes.size(); ++block) {
        if ((block + 1) * m_erase_size > m_data.size())
            throw std::out_of_range("PokeGood: data larger than the good blocks");
        if (m_bad_blocks.count(block))
            continue;
        const std::size_t n = std::min(m_erase_size, bytes.size() - done);
        std::memcpy(m_data.data() + block * m_erase_size, bytes.data() + done, n);
        done += n;
    }
}

std::string MemoryNandAccess::Peek(std::uint64_t offset, std::size_t length) const
{
    CheckRange(offset, length);
    return std::string(reinterpret_cast<const char*>(m_data.data()) + offset, length);
}

std::vector<MemoryNandAccess::Call> MemoryNandAccess::CallsOf(const std::string& operation) const
{
    std::vector<Call> result;
    std::copy_if(m_calls.begin(), m_calls.end(), std::back_inserter(result),
                 [&](const Call& c) { return c.operation == operation; });
    return result;
}

void MemoryNandAccess::Record(const char* operation, std::uint64_t offset, std::size_t length)
{
    m_calls.push_back(Call{operation, offset, length});
}

void MemoryNandAccess::CheckRange(std::uint64_t offset, std::size_t length) const
{
    if (offset > m_data.size() || length > m_data.size() - offset)
        throw corvid::ErrnoException(EINVAL, "MemoryNandAccess");
}

int MemoryNandAccess::ReadOob(std::uint64_t offset, void* buffer, std::size_t length)
{
    Record("ReadOob", offset, length);
    const std::size_t n = std::min(length, m_oob_size);
    if (m_write_size == 0 || n == 0)
        return 0;
    CheckRange(offset, 1);
    std::memcpy(buffer, m_oob.data() + offset / m_write_size * m_oob_size, n);
    return 0;
}

int MemoryNandAccess::WriteOob(std::uint64_t offset, const void* buffer, std::size_t length)
{
    Record("WriteOob", offset, length);
    const std::size_t n = std::min(length, m_oob_size);
    if (m_write_size == 0 || n == 0)
        return 0;
    CheckRange(offset, 1);
    std::memcpy(m_oob.data() + offset / m_write_size * m_oob_size, buffer, n);
    return 0;
}

bool MemoryNandAccess::IsBadBlock(std::uint64_t offset)
{
    Record("IsBadBlock", offset, 0);
    if (offset >= m_data.size()) {
        if (m_reject_out_of_range)
            throw corvid::ErrnoException(EINVAL);
        return false;
    }
    return m_bad_blocks.count(offset / m_erase_size) != 0;
}

bool MemoryNandAccess::IsOobErased(std::uint64_t offset)
{
    Record("IsOobErased", offset, 0);
    if (m_oob_size == 0)
        return true;
    CheckRange(offset, 1);
    const auto* oob = m_oob.data() + offset / m_write_size * m_oob_size;
    return std::all_of(oob, oob + m_oob_size, [](std::uint8_t b) { return b == 0xFF; });
}

int MemoryNandAccess::MarkBadBlock(std::uint64_t offset)
{
    Record("MarkBadBlock", offset, 0);
    m_bad_blocks.insert(offset / m_erase_size);
    return 0;
}

int MemoryNandAccess::EraseBlock(std::uint64_t offset)
{
    Record("EraseBlock", offset, m_erase_size);
    CheckRange(offset, m_erase_size);
    if (m_bad_blocks.count(offset / m_erase_size))
        throw corvid::ErrnoException(EIO, "erase of a bad block");
    std::fill_n(m_data.begin() + offset, m_erase_size, 0xFF);
    if (m_write_size) {
        const std::size_t first_page = offset / m_write_size;
        const std::size_t pages = m_erase_size / m_write_size;
        std::fill_n(m_oob.begin() + first_page * m_oob_size, pages * m_oob_size, 0xFF);
    }
    return 0;
}

std::size_t MemoryNandAccess::Read(std::uint64_t offset, void* buffer, std::size_t length)
{
    Record("Read", offset, length);
    const std::size_t n = std::min(length, m_erase_size);
    CheckRange(offset, n);
    std::memcpy(buffer, m_data.data() + offset, n);
    return n;
}

void MemoryNandAccess::Write(std::uint64_t offset, const void* buffer, std::size_t length)
{
    Record("Write", offset, length);
    CheckRange(offset, length);
    std::memcpy(m_data.data() + offset, buffer, length);
}
