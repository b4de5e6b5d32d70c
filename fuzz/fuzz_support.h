// What the fuzz targets share: a NAND partition held in memory, the context
// of a target (a scratch root and partitions by name), and the isolation of
// the kernel log. Every target is built into a libFuzzer program (VX_FUZZ)
// or, in the other builds, into a program that replays the files given on
// its command line (replay_main.cpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "hardware/context.h"
#include "platform/clock.h"
#include "platform/nand_access.h"

namespace vxfuzz {

// A partition in memory, erased (0xFF) unless written, with bad blocks. Only
// written blocks take memory, so a partition of many megabytes costs what
// its data costs. Reads behave like those of an MTD device: at most one
// erase block, fewer bytes at the end of the partition, and an offset past
// the end fails like the device's seek (ErrnoException EINVAL). A bad-block
// query at or past the end fails the same way when reject_out_of_range is
// set (the kernel) and answers "good" otherwise (an image file).
class MemoryNand final : public NandAccess {
public:
    MemoryNand(std::uint64_t total_size, std::size_t erase_size, std::size_t write_size = 2048);

    std::set<std::uint64_t> bad_blocks; // block indexes
    bool reject_out_of_range = true;

    // Writes bytes at a physical offset; what lies past the end is dropped.
    void Put(std::uint64_t offset, std::string_view bytes);
    // Writes bytes from a logical offset on over the good blocks only, the
    // way the factory lays data out; what does not fit is dropped.
    void PutOverGoodBlocks(std::uint64_t logical_offset, std::string_view bytes);

    int ReadOob(std::uint64_t, void*, std::size_t) override { return 0; }
    int WriteOob(std::uint64_t, const void*, std::size_t) override { return 0; }
    std::size_t GetEraseSize() const override { return m_erase_size; }
    std::size_t GetOobSize() const override { return 0; }
    std::size_t GetWriteSize() const override { return m_write_size; }
    std::size_t GetTotalSize() const override { return m_total_size; }
    bool IsBadBlock(std::uint64_t offset) override;
    bool IsOobErased(std::uint64_t) override { return true; }
    int MarkBadBlock(std::uint64_t offset) override;
    int EraseBlock(std::uint64_t offset) override;
    std::size_t Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    void Write(std::uint64_t offset, const void* buffer, std::size_t length) override;

private:
    std::map<std::uint64_t, std::string> m_blocks; // written blocks by index
    std::uint64_t m_total_size;
    std::size_t m_erase_size;
    std::size_t m_write_size;
};

// The context of a fuzz target: live paths below a scratch directory (in
// /dev/shm when it can be written; removed at exit), the partitions a
// target sets, no GPIO device and no network interface.
class FuzzContext final : public Context {
public:
    // The process's context, made on first use.
    static FuzzContext& Get();

    // Writes a file at a live path ("/proc/mtd") below the scratch root and
    // returns its path.
    std::string WriteFile(const std::string& live_path, std::string_view content);

    // The partition opened under name from now on; other names fail as a
    // missing /proc/mtd row does.
    void SetPartition(const std::string& name, NandAccess::Pointer nand);

    NandAccess::Pointer OpenPartition(const std::string& name) override;
    NandAccess::Pointer OpenWholeDevice(const std::string& name) override;
    std::unique_ptr<EventDevice> OpenGpioEventDevice(int type) override;
    corvid::HardwareAddress GetInterfaceAddress(const std::string& name) override;
    corvid::Clock& GetClock() override { return m_clock; }

private:
    explicit FuzzContext(const std::string& root);

    std::map<std::string, NandAccess::Pointer> m_partitions;
    corvid::SystemClock m_clock;
};

// Ends the process with a report on standard error when a property of the
// code under test does not hold: a finding, like a crash.
#define VXFUZZ_CHECK(condition) \
    ((condition) ? void(0) : ::vxfuzz::PropertyFailed(#condition, __FILE__, __LINE__))
[[noreturn]] void PropertyFailed(const char* condition, const char* file, int line);

// The input as text.
inline std::string_view Text(const std::uint8_t* data, std::size_t size)
{
    return {reinterpret_cast<const char*>(data), size};
}

} // namespace vxfuzz
