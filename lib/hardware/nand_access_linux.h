// Raw NAND partitions through the Linux MTD character devices.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

#include "platform/nand_access.h"
#include "platform/handles.h"

// One row of /proc/mtd.
struct MtdPartition {
    std::string device;       // "/dev/mtd3": the first column without its ':'
    std::uint32_t size;       // second column, hexadecimal
    std::uint32_t erase_size; // third column, hexadecimal
    std::string name;         // fourth column without its quotes
};

// Path of the kernel's MTD partition table.
inline constexpr const char* MTD_TABLE_PATH = "/proc/mtd";

// Looks a partition up by its exact name in the MTD table of the process's
// context (Context::Path("/proc/mtd")). The first matching row wins.
// Throws ErrnoException (errno, no context) when the table cannot be opened,
// std::runtime_error "Failed to read /proc/mtd" when even the header cannot
// be read, and std::runtime_error "Failed to find NAND partition named '<name>'"
// when no row matches before the end of the table or the first malformed row.
MtdPartition FindMtdPartition(const std::string& name);

// A NandAccess on a Linux MTD character device. The concrete class is
// LinuxNandAccessImpl; the creators below hand it out as NandAccess::Pointer.
class LinuxNandAccess : public NandAccess {
public:
    // The largest size a creator may ask for: the whole device is used.
    static constexpr std::size_t WHOLE_DEVICE = std::numeric_limits<std::size_t>::max();

    // Opens the device at path; the partition is the first max_size bytes of
    // it, or the whole device when that is smaller.
    static NandAccess::Pointer Create(const std::string& device, std::size_t max_size);
    // Opens the device of a /proc/mtd row, limited to the row's size.
    static NandAccess::Pointer Create(const MtdPartition& partition);

protected:
    LinuxNandAccess() = default;
    ~LinuxNandAccess() = default;
};

class LinuxNandAccessImpl final : public LinuxNandAccess {
public:
    // Opens the device read-write and synchronous and queries its geometry.
    // Throws ErrnoException(errno, device) when the device cannot be opened
    // and ErrnoException(errno) when the geometry query fails. A size that is
    // not a whole number of erase blocks is a fatal assertion.
    LinuxNandAccessImpl(const std::string& device, std::size_t max_size);
    explicit LinuxNandAccessImpl(const MtdPartition& partition);

    LinuxNandAccessImpl(const LinuxNandAccessImpl&) = delete;
    LinuxNandAccessImpl& operator=(const LinuxNandAccessImpl&) = delete;

    // The OOB requests address the device with 32-bit offsets and move at
    // most GetOobSize() bytes. Failing requests throw ErrnoException(errno).
    int ReadOob(std::uint64_t offset, void* buffer, std::size_t length) override;
    int WriteOob(std::uint64_t offset, const void* buffer, std::size_t length) override;
    std::size_t GetEraseSize() const override { return m_erase_size; }
    std::size_t GetOobSize() const override { return m_oob_size; }
    std::size_t GetWriteSize() const override { return m_write_size; }
    std::size_t GetTotalSize() const override { return m_total_size; }
    bool IsBadBlock(std::uint64_t offset) override;
    bool IsOobErased(std::uint64_t offset) override;
    int MarkBadBlock(std::uint64_t offset) override;
    int EraseBlock(std::uint64_t offset) override;
    std::size_t Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    void Write(std::uint64_t offset, const void* buffer, std::size_t length) override;

    // From now on Read and ReadOob return the pages and OOB bytes as the chip
    // holds them, without ECC correction (the MTD file mode MTD_FILE_MODE_RAW).
    // Throws ErrnoException(errno) when the kernel refuses.
    void UseRawMode();

private:
    void SeekTo(std::uint64_t offset, const char* operation);

    corvid::UniqueFd m_fd;
    std::size_t m_erase_size = 0;
    std::size_t m_write_size = 0;
    std::size_t m_oob_size = 0;
    std::size_t m_total_size = 0;
};
