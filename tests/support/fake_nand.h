// A NandAccess over a byte buffer that records the calls the code under test
// makes, with bad blocks set by the test.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "hardware/nand_access.h"

class FakeNand final : public NandAccess {
public:
    struct Call {
        std::string operation; // "IsBadBlock", "Read", "EraseBlock", ...
        std::uint64_t offset;
        std::size_t length;    // 0 where the operation takes no length
        bool operator==(const Call&) const = default;
    };

    // A partition of total_size bytes, erased (0xFF), without bad blocks and
    // without OOB (the OOB operations are proven on the simulated player).
    FakeNand(std::size_t total_size, std::size_t erase_size, std::size_t write_size = 2048);
    static std::shared_ptr<FakeNand> Create(std::size_t total_size, std::size_t erase_size,
                                            std::size_t write_size = 2048);

    // Set-up, not recorded.
    void SetBadBlocks(const std::set<std::size_t>& block_indexes) { m_bad_blocks = block_indexes; }
    // Copies bytes to a physical offset.
    void Poke(std::uint64_t offset, const std::string& bytes);
    // Copies bytes over the good blocks from their logical offset 0 on, the
    // way the boot loader lays data out.
    void PokeGood(const std::string& bytes);
    // When set, IsBadBlock at or beyond the total size throws
    // ErrnoException(EINVAL), as the kernel does.
    void SetRejectOutOfRange(bool reject) { m_reject_out_of_range = reject; }

    const std::vector<Call>& Calls() const { return m_calls; }
    std::vector<Call> CallsOf(const std::string& operation) const;
    void ClearCalls() { m_calls.clear(); }

    int ReadOob(std::uint64_t, void*, std::size_t) override { return 0; }
    int WriteOob(std::uint64_t, const void*, std::size_t) override { return 0; }
    std::size_t GetEraseSize() const override { return m_erase_size; }
    std::size_t GetOobSize() const override { return 0; }
    std::size_t GetWriteSize() const override { return m_write_size; }
    std::size_t GetTotalSize() const override { return m_data.size(); }
    bool IsBadBlock(std::uint64_t offset) override;
    bool IsOobErased(std::uint64_t) override { return true; }
    int MarkBadBlock(std::uint64_t offset) override;
    int EraseBlock(std::uint64_t offset) override;
    std::size_t Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    void Write(std::uint64_t offset, const void* buffer, std::size_t length) override;

private:
    void CheckRange(std::uint64_t offset, std::size_t length) const;

    std::size_t m_erase_size;
    std::size_t m_write_size;
    std::string m_data;
    std::set<std::size_t> m_bad_blocks;
    std::vector<Call> m_calls;
    bool m_reject_out_of_range = false;
};
