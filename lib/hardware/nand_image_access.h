// A NAND partition held in a raw image file, as dumped from a player for
// offline analysis: every erase block in physical order, bad ones included,
// no out-of-band data. The bad blocks are given by the caller.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "platform/nand_access.h"
#include "platform/posix_helpers.h"

class NandImageAccess final : public NandAccess {
public:
    // Opens the image read-only, or read-write when writable is set (writes
    // and erases then change the file; it never grows). Throws
    // ErrnoException(errno, path) when it cannot be opened and
    // std::runtime_error when the erase size is 0, the write size does not
    // divide it, the file is not a whole number of erase blocks, or a bad
    // block index lies beyond the image.
    NandImageAccess(const std::string& path, std::size_t erase_size, std::size_t write_size,
                    const std::set<std::size_t>& bad_blocks, bool writable = false);

    static NandAccess::Pointer Create(const std::string& path, std::size_t erase_size,
                                      std::size_t write_size,
                                      const std::set<std::size_t>& bad_blocks,
                                      bool writable = false);

    // There is no OOB: these move nothing and return 0.
    int ReadOob(std::uint64_t offset, void* buffer, std::size_t length) override;
    int WriteOob(std::uint64_t offset, const void* buffer, std::size_t length) override;
    std::size_t GetEraseSize() const override { return m_erase_size; }
    std::size_t GetOobSize() const override { return 0; }
    std::size_t GetWriteSize() const override { return m_write_size; }
    std::size_t GetTotalSize() const override { return m_total_size; }
    // True for the listed blocks. An offset at or past the end of the image
    // is not a listed block and reads as good.
    bool IsBadBlock(std::uint64_t offset) override;
    // Always true: an image has no OOB.
    bool IsOobErased(std::uint64_t offset) override;
    // Adds the block to the bad-block list of this object (not of the file).
    int MarkBadBlock(std::uint64_t offset) override;
    // Fills the block with 0xFF. A bad block throws ErrnoException(EIO), as
    // the kernel refuses to erase one.
    int EraseBlock(std::uint64_t offset) override;
    // Reads at most one erase block; fewer bytes only at the end of the image.
    std::size_t Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    void Write(std::uint64_t offset, const void* buffer, std::size_t length) override;

private:
    // Throws ErrnoException(EINVAL, context) unless [offset, offset + length)
    // lies inside the image.
    void CheckRange(std::uint64_t offset, std::uint64_t length, const char* context) const;
    void CheckWritable(const char* context) const;

    corvid::UniqueFd m_fd;
    std::string m_path;
    std::size_t m_erase_size;
    std::size_t m_write_size;
    std::size_t m_total_size = 0;
    std::set<std::size_t> m_bad_blocks;
    bool m_writable;
};
