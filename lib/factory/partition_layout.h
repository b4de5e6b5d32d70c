// Partitions as the factory lays them out: data over the good blocks, in a
// partition held in memory, and the raw image that vxtool reads (--P-image)
// and the factory writes to the chip. The tests, the fuzz targets and the
// benchmarks read through the same in-memory partition as through a device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/nand_access.h"

// A partition in memory, erased (0xFF) until written, with bad blocks. Only
// written blocks take memory, so a partition of many megabytes costs what
// its data costs. Reads behave like those of an MTD device: at most one erase
// block, fewer bytes at the end of the partition, and an offset past the end
// fails like the device's seek (ErrnoException EINVAL). A bad-block query at
// or past the end fails the same way when reject_out_of_range is set (the
// kernel) and answers "good" otherwise (an image file). Every Read is
// recorded. No OOB area.
class MemoryNand final : public NandAccess {
public:
    // Throws std::invalid_argument for an erase size of 0.
    MemoryNand(std::uint64_t total_size, std::size_t erase_size, std::size_t write_size = 2048);

    std::set<std::size_t> bad_blocks; // erase-block indexes
    bool reject_out_of_range = false;
    // The Read calls, as (offset, length).
    using Reads = std::vector<std::pair<std::uint64_t, std::size_t>>;
    Reads reads;

    // Writes bytes at a physical offset, bad blocks or not; what lies past
    // the end is dropped.
    void Put(std::uint64_t offset, std::string_view bytes);
    // Every byte in physical order.
    std::string Contents() const;

    int ReadOob(std::uint64_t, void*, std::size_t) override { return 0; }
    int WriteOob(std::uint64_t, const void*, std::size_t) override { return 0; }
    std::size_t GetEraseSize() const override { return m_erase_size; }
    std::size_t GetOobSize() const override { return 0; }
    std::size_t GetWriteSize() const override { return m_write_size; }
    std::size_t GetTotalSize() const override { return m_total_size; }
    bool IsBadBlock(std::uint64_t offset) override;
    bool IsOobErased(std::uint64_t) override { return true; }
    int MarkBadBlock(std::uint64_t offset) override;
    // An offset past the end fails with EINVAL, a bad block with EIO.
    int EraseBlock(std::uint64_t offset) override;
    std::size_t Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    // Bytes past the end fail with EINVAL and write nothing.
    void Write(std::uint64_t offset, const void* buffer, std::size_t length) override;

private:
    std::map<std::uint64_t, std::string> m_blocks; // written blocks by index
    std::uint64_t m_total_size;
    std::size_t m_erase_size;
    std::size_t m_write_size;
};

// Writes data over the good blocks of a partition from a logical offset on
// (one that counts good blocks only, as the player's good-block reads do),
// passing over bad blocks the way the factory does. Returns how many bytes
// fitted; what lies past the last good block is left out.
std::size_t LayOverGoodBlocks(NandAccess& nand, std::uint64_t logical_offset, std::string_view data);

// A raw image of a partition of total_size bytes, every block in physical
// order (what vxtool reads and the factory writes): data laid over
// the good blocks from the first on, the bad blocks zero-filled, erased
// flash elsewhere. Throws std::runtime_error when data does not fit the good
// blocks.
std::string MakePartitionImage(std::string_view data, std::uint64_t total_size, std::size_t erase_size,
                               const std::set<std::size_t>& bad_blocks);
