// What the fuzz targets share: the context of a target (a scratch root and
// partitions by name; the partitions are the factory's MemoryNand, laid out
// with LayOverGoodBlocks), and the isolation of the kernel log. Every target
// is built into a libFuzzer program (VX_FUZZ) or, in the other builds, into
// a program that replays the files given on its command line
// (replay_main.cpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "factory/partition_layout.h"
#include "hardware/context.h"
#include "platform/clock.h"
#include "platform/nand_access.h"

namespace vxfuzz {

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
