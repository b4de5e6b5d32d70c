// A NandAccess over a byte buffer, erased (0xFF) to begin with, with bad
// blocks set by the test; it keeps the reads the code under test makes. It
// has no OOB (the OOB operations are proven on the simulated player).
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/nand_access.h"
#include "platform/posix_helpers.h"

class FakeNand final : public NandAccess {
public:
    FakeNand(std::size_t total_size, std::size_t erase_size, std::size_t write_size = 2048)
        : data(total_size, '\xFF'), m_erase_size(erase_size), m_write_size(write_size)
    {
    }

    std::set<std::size_t> bad_blocks; // block indexes
    // When set, IsBadBlock at or beyond the total size throws
    // ErrnoException(EINVAL), as the kernel does.
    bool reject_out_of_range = false;
    // The Read calls, as (offset, length).
    using Reads = std::vector<std::pair<std::uint64_t, std::size_t>>;
    Reads reads;
    std::string data; // the partition's bytes

    void Poke(std::uint64_t offset, const std::string& bytes)
    {
        if (offset > data.size() || bytes.size() > data.size() - offset)
            throw corvid::ErrnoException(EINVAL, "FakeNand");
        data.replace(offset, bytes.size(), bytes);
    }

    int ReadOob(std::uint64_t, void*, std::size_t) override { return 0; }
    int WriteOob(std::uint64_t, const void*, std::size_t) override { return 0; }
    std::size_t GetEraseSize() const override { return m_erase_size; }
    std::size_t GetOobSize() const override { return 0; }
    std::size_t GetWriteSize() const override { return m_write_size; }
    std::size_t GetTotalSize() const override { return data.size(); }
    bool IsBadBlock(std::uint64_t offset) override
    {
        if (offset >= data.size() && reject_out_of_range)
            throw corvid::ErrnoException(EINVAL);
        return bad_blocks.count(offset / m_erase_size) != 0;
    }
    bool IsOobErased(std::uint64_t) override { return true; }
    int MarkBadBlock(std::uint64_t offset) override { bad_blocks.insert(offset / m_erase_size); return 0; }
    int EraseBlock(std::uint64_t offset) override
    {
        if (IsBadBlock(offset))
            throw corvid::ErrnoException(EIO, "erase of a bad block");
        Poke(offset, std::string(m_erase_size, '\xFF'));
        return 0;
    }
    std::size_t Read(std::uint64_t offset, void* buffer, std::size_t length) override
    {
        reads.emplace_back(offset, length);
        const std::string bytes = data.substr(offset, std::min(length, m_erase_size));
        std::memcpy(buffer, bytes.data(), bytes.size());
        return bytes.size();
    }
    void Write(std::uint64_t offset, const void* buffer, std::size_t length) override
    {
        Poke(offset, std::string(static_cast<const char*>(buffer), length));
    }

private:
    std::size_t m_erase_size;
    std::size_t m_write_size;
};
