// A NandAccess over a byte buffer, recording every call, for tests.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "hardware/nand_access.h"

class MemoryNandAccess : public NandAccess {
public:
    struct Call {
        std::string operation; // "ReadOob", "IsBadBlock", "Read", "EraseBlock", ...
        std::uint64_t offset;
        std::size_t length;     // 0 where the operation takes no length
        bool operator==(const Call&) const = default;
    };

    // A partition of total_size bytes, erased (0xFF), without bad blocks.
    MemoryNandAccess(std::size_t total_size, std::size_t erase_size,
                     std::size_t write_size = 2048, std::size_t oob_size = 64);

    static std::shared_ptr<MemoryNandAccess> Create(std::size_t total_size, std::size_t erase_size,
                                                    std::size_t write_size = 2048,
                                                    std::size_t oob_size = 64);

    // Test set-up, not recorded.
    void SetBadBlocks(const std::set<std::size_t>& block_indexes);
    // Copies bytes into the raw buffer at a physical offset.
    void Poke(std::uint64_t offset, const std::string& bytes);
    // Copies bytes into the good blocks from their logical offset 0 on, the
    // way the boot loader lays data out.
    void PokeGood(const std::string& bytes);
    const std::vector<std::uint8_t>& Bytes() const { return m_data; }
    std::string Peek(std::uint64_t offset, std::size_t length) const;

    // Every call since construction or the last ClearCalls().
    const std::vector<Call>& Calls() const { return m_calls; }
    void ClearCalls() { m_calls.clear(); }
    // Only the calls of one operation.
    std::vector<Call> CallsOf(const std::string& operation) const;

    // When set, IsBadBlock at or beyond the total size throws
    // ErrnoException(EINVAL), as the kernel does.
    void SetRejectOutOfRange(bool reject) { m_reject_out_of_range = reject; }

    int ReadOob(std::uint64_t offset, void* buffer, std::size_t length) override;
    int WriteOob(std::uint64_t offset, const void* buffer, std::size_t length) override;
    std::size_t GetEraseSize() const override { return m_erase_size; }
    std::size_t GetOobSize() const override { return m_oob_size; }
    std::size_t GetWriteSize() const override { return m_write_size; }
    std::size_t GetTotalSize() const override { return m_data.size(); }
    bool IsBadBlock(std::uint64_t offset) override;
    bool IsOobErased(std::uint64_t offset) override;
    int MarkBadBlock(std::uint64_t offset) override;
    int EraseBlock(std::uint64_t offset) override;
    std::size_t Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    void Write(std::uint64_t offset, const void* buffer, std::size_t length) override;

private:
    void Record(const char* operation, std::uint64_t offset, std::size_t length);
    void CheckRange(std::uint64_t offset, std::size_t length) const;

    std::size_t m_erase_size;
    std::size_t m_write_size;
    std::size_t m_oob_size;
    std::vector<std::uint8_t> m_data;
    std::vector<std::uint8_t> m_oob;
    std::set<std::size_t> m_bad_blocks;
    std::vector<Call> m_calls;
    bool m_reject_out_of_range = false;
};
