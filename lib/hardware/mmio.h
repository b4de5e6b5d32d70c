// The system-on-chip's register space through "/dev/mem", and the status
// block of its adaptive voltage scaling (AVS) firmware.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "platform/handles.h"

inline constexpr const char* MEM_DEVICE_PATH = "/dev/mem";
inline constexpr std::uint64_t MMIO_PHYSICAL_ADDRESS = 0x08000000;
inline constexpr std::size_t MMIO_LENGTH = 0x22FF180;
// The AVS status block: 18 words at this offset of the mapping.
inline constexpr std::size_t AVS_STATUS_OFFSET = 0x144000;
inline constexpr std::size_t AVS_STATUS_WORDS = 18;
inline constexpr std::uint32_t AVS_RUNNING_MAGIC = 0xA11600D1;

using AvsStatusWords = std::array<std::uint32_t, AVS_STATUS_WORDS>;

// The register space mapped read-write and shared. Fields in order: the
// mapping's address and length (one owner), then the descriptor.
class MmioBase {
public:
    // Opens "/dev/mem" of the process's context read-write and close-on-exec
    // (ErrnoException with the path) and maps the register space
    // (ErrnoException without context; the descriptor is closed again).
    MmioBase();
    // Unmaps, then closes.
    ~MmioBase();
    MmioBase(const MmioBase&) = delete;
    MmioBase& operator=(const MmioBase&) = delete;

    // The 32-bit register at offset; an offset at or beyond the mapping's
    // length throws std::out_of_range "MMIO offset out of range".
    std::uint32_t Read32(std::size_t offset) const;

private:
    corvid::UniqueMapping m_mapping;
    corvid::UniqueFd m_fd;
};

// The thirteen named values of an AVS status block: "Magic", "Status",
// "T0", "V0", "PV0", "MV0", "T1", "V1", "PV1", "MV1", "Power State",
// "Heartbeat", "Revision".
std::map<std::string, std::string> ConvertAvsStatus(const AvsStatusWords& words);

// Maps the registers, copies the block's 18 words in one pass, unmaps, and
// converts them.
std::map<std::string, std::string> ReadAvsStatus();
