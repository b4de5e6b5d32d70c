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
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "hardware/nand_access.h"

// Name of the partition that holds the environment.
inline constexpr const char* BOOTLOADER_ENVIRONMENT_PARTITION = "flash0.nvram";

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
};

// The process-wide environment, loaded from flash0.nvram on first use and
// cached for the life of the process (a failed load too). Never throws for a
// missing or corrupt environment: it then prints
// "BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n" to
// standard error once and yields an empty map. A failure to lock the cache
// throws std::system_error.
BootloaderEnvironment GetBootloaderEnvironment();

// Parses one environment block. Throws std::runtime_error "Unknown record
// type", "Record header truncated" or "Record content truncated"; a record
// without '=' is reported on standard error and skipped.
std::map<std::string, std::string> ParseBootloaderEnvironmentBlock(std::string_view block);

// Reads the environment block of a partition (its first good erase block)
// and parses it. Throws std::runtime_error "All BOLT environment NAND blocks
// are bad", the parser's errors, and whatever the device throws.
BootloaderEnvironment LoadBootloaderEnvironment(NandAccess& nand);

// Opens the partition with open() and loads the environment from it. Any
// standard exception on the way prints the corrupt-environment line and
// gives the empty environment.
BootloaderEnvironment LoadBootloaderEnvironmentOrEmpty(
    const std::function<NandAccess::Pointer()>& open);

// The factory side: one erase block holding a record (type 0x01, flags 0) for
// each KEY=VALUE text in the given order, the end byte 0x00, and 0xFF up to
// erase_size bytes. Throws std::runtime_error for a text without '=', a text
// too long for one record (more than 254 bytes), or records that do not fit
// in the block together with the end byte.
std::string EncodeBootloaderEnvironmentBlock(const std::vector<std::string>& texts,
                                             std::size_t erase_size);
