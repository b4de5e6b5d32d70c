// One partition of the raw NAND chip.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

// Abstract access to one raw NAND partition. Objects are shared through
// NandAccess::Pointer, which is always created for the concrete type, so the
// interface has no virtual destructor.
class NandAccess {
public:
    using Pointer = std::shared_ptr<NandAccess>;

    virtual int ReadOob(std::uint64_t offset, void* buffer, std::size_t length) = 0;
    virtual int WriteOob(std::uint64_t offset, const void* buffer, std::size_t length) = 0;
    virtual std::size_t GetEraseSize() const = 0;
    virtual std::size_t GetOobSize() const = 0;
    virtual std::size_t GetWriteSize() const = 0;
    virtual std::size_t GetTotalSize() const = 0;
    virtual bool IsBadBlock(std::uint64_t offset) = 0;
    virtual bool IsOobErased(std::uint64_t offset) = 0;
    virtual int MarkBadBlock(std::uint64_t offset) = 0;
    virtual int EraseBlock(std::uint64_t offset) = 0;
    // Erases every good block from offset while below offset + length; bad
    // blocks are left untouched and still count towards the range.
    virtual void EraseRange(std::uint64_t offset, std::uint64_t length);
    // EraseRange(0, GetTotalSize()).
    virtual void EraseAll();
    // Reads at most one erase block; returns the number of bytes read.
    virtual std::size_t Read(std::uint64_t offset, void* buffer, std::size_t length) = 0;
    virtual void Write(std::uint64_t offset, const void* buffer, std::size_t length) = 0;
    // Write().
    virtual void WriteBlock(std::uint64_t offset, const void* buffer, std::size_t length);

protected:
    NandAccess() = default;
    NandAccess(const NandAccess&) = default;
    NandAccess& operator=(const NandAccess&) = default;
    ~NandAccess() = default;
};
