#include "support/fake_nand.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "platform/posix_helpers.h"

FakeNand::FakeNand(std::size_t total_size, std::size_t erase_size, std::size_t write_size)
    : m_erase_size(erase_size), m_write_size(write_size), m_data(total_size, '\xFF')
{
}

std::shared_ptr<FakeNand> FakeNand::Create(std::size_t total_size, std::size_t erase_size,
                                           std::size_t write_size)
{
    return std::make_shared<FakeNand>(total_size, erase_size, write_size);
}

void FakeNand::Poke(std::uint64_t offset, const std::string& bytes)
{
    CheckRange(offset, bytes.size());
    m_data.replace(offset, bytes.size(), bytes);
}

void FakeNand::PokeGood(const std::string& bytes)
{
    std::size_t done = 0;
    for (std::size_t block = 0; done < bytes.size(); ++block) {
        if ((block + 1) * m_erase_size > m_data.size())
            throw std::out_of_range("PokeGood: data larger than the good blocks");
        if (m_bad_blocks.count(block))
            continue;
        const std::size_t n = std::min(m_erase_size, bytes.size() - done);
        m_data.replace(block * m_erase_size, n, bytes, done, n);
        done += n;
    }
}

std::vector<FakeNand::Call> FakeNand::CallsOf(const std::string& operation) const
{
    std::vector<Call> result;
    std::copy_if(m_calls.begin(), m_calls.end(), std::back_inserter(result),
                 [&](const Call& c) { return c.operation == operation; });
    return result;
}

void FakeNand::CheckRange(std::uint64_t offset, std::size_t length) const
{
    if (offset > m_data.size() || length > m_data.size() - offset)
        throw corvid::ErrnoException(EINVAL, "FakeNand");
}

bool FakeNand::IsBadBlock(std::uint64_t offset)
{
    m_calls.push_back({"IsBadBlock", offset, 0});
    if (offset >= m_data.size() && m_reject_out_of_range)
        throw corvid::ErrnoException(EINVAL);
    return m_bad_blocks.count(offset / m_erase_size) != 0;
}

int FakeNand::MarkBadBlock(std::uint64_t offset)
{
    m_calls.push_back({"MarkBadBlock", offset, 0});
    m_bad_blocks.insert(offset / m_erase_size);
    return 0;
}

int FakeNand::EraseBlock(std::uint64_t offset)
{
    m_calls.push_back({"EraseBlock", offset, m_erase_size});
    CheckRange(offset, m_erase_size);
    if (m_bad_blocks.count(offset / m_erase_size))
        throw corvid::ErrnoException(EIO, "erase of a bad block");
    std::fill_n(m_data.begin() + offset, m_erase_size, '\xFF');
    return 0;
}

std::size_t FakeNand::Read(std::uint64_t offset, void* buffer, std::size_t length)
{
    m_calls.push_back({"Read", offset, length});
    const std::size_t n = std::min(length, m_erase_size);
    CheckRange(offset, n);
    std::memcpy(buffer, m_data.data() + offset, n);
    return n;
}

void FakeNand::Write(std::uint64_t offset, const void* buffer, std::size_t length)
{
    m_calls.push_back({"Write", offset, length});
    CheckRange(offset, length);
    m_data.replace(offset, length, static_cast<const char*>(buffer), length);
}
