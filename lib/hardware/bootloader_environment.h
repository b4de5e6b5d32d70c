// The boot loader's environment: KEY=VALUE records in the first good erase
// block of the NAND partition "flash0.nvram".
//
// Layout of the block, from its start, record after record:
//   byte 0      type: 0x01 variable, 0x00 end of list (0xFF, erased flash,
//               also ends the list when it is the first record's type)
//   byte 1      L, the number of bytes that follow this one
//   byte 2      flags, not interpreted
//   bytes 3..   L - 1 bytes of KEY=VALUE text, no terminator
// The next record starts at byte 2 + L. The key ends at the first '='.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "platform/nand_access.h"

class Context;

// Name of the partition that holds the environment.
inline constexpr const char* BOOTLOADER_ENVIRONMENT_PARTITION = "flash0.nvram";

// Record types.
inline constexpr unsigned char ENVIRONMENT_RECORD_END = 0x00;
inline constexpr unsigned char ENVIRONMENT_RECORD_VARIABLE = 0x01;
// Type, length and flags bytes before the text.
inline constexpr std::size_t ENVIRONMENT_RECORD_HEADER_SIZE = 3;
// The longest KEY=VALUE text of one record: the length byte counts the
// flags byte and the text.
inline constexpr std::size_t MAX_ENVIRONMENT_RECORD_TEXT = 255 - 1;

struct BootloaderEnvironment {
    // Always empty: what a lookup of an absent variable yields.
    std::string empty;
    // Variables by name, in byte-wise key order.
    std::map<std::string, std::string> variables;

    // The value of a variable, or the empty text when it is absent.
    const std::string& Get(const std::string& key) const
    {
        const auto found = variables.find(key);
        return found == variables.end() ? empty : found->second;
    }

    // Whether the unit has a signed manufacturing record (SRB): VX_FORMAT is
    // exactly "1". Without it the player reads no other variable of the record.
    bool HasSrb() const;
    // VX_HWFLAGS read like strtoull in base 0; all ones when it is absent.
    std::uint64_t HardwareFlags() const;
    // VX_SERIAL as it stands (empty when absent), whether or not there is an SRB.
    const std::string& Serial() const { return Get("VX_SERIAL"); }
};

// The process's environment, loaded from the context's flash0.nvram on first
// use and cached for the life of the process (a failed load too), behind one
// mutex. Never throws for a missing or corrupt environment: it then prints
// "BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n" to
// standard error once and yields an empty map. A failure to lock the cache
// throws std::system_error.
BootloaderEnvironment GetBootloaderEnvironment();

// Forgets the cached environment, so that the next GetBootloaderEnvironment
// loads it again. For tests and benchmarks, which make a new context (a new
// unit) per case; the check never calls it.
void ForgetBootloaderEnvironment();

// Parses one environment block. Throws std::runtime_error "Unknown record
// type", "Record header truncated" or "Record content truncated"; a record
// without '=' is reported on standard error and skipped.
std::map<std::string, std::string> ParseBootloaderEnvironmentBlock(std::string_view block);

// The environment block of a partition: its first good erase block, as the
// device returned it (a short read gives fewer bytes), and where it lies.
struct EnvironmentBlock {
    std::uint64_t offset = 0;
    std::string bytes;
};

// Reads the environment block of a partition. Throws std::runtime_error "All
// BOLT environment NAND blocks are bad" and whatever the device throws.
EnvironmentBlock ReadEnvironmentBlock(NandAccess& nand);

// Reads the environment block of a partition and parses it. Throws what
// ReadEnvironmentBlock and the parser throw.
BootloaderEnvironment LoadBootloaderEnvironment(NandAccess& nand);

// Opens flash0.nvram through the context and loads the environment from it.
// Any standard exception on the way prints the corrupt-environment line and
// gives the empty environment.
BootloaderEnvironment LoadBootloaderEnvironmentOrEmpty(Context& context);
