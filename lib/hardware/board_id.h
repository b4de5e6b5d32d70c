// The kernel's board identity, "/proc/boardid": "Key: value" pairs such as
//   ID: 0x42
//   Secure-ID: 5ec1d0000000c0de
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

inline constexpr const char* BOARD_ID_PATH = "/proc/boardid";

struct BoardIdentity {
    std::int64_t id = -1;           // "ID:", strtoul base 0
    std::string family;             // "Family:"
    std::string bolt_version;       // "BOLT-version:"
    std::string bootloader_version; // "Bootloader-version:"
    bool secure_keys = false;       // "Secure-keys:", strtoul base 0, non-zero
    bool secure_boot = false;       // "Secure-boot:", strtoul base 0, non-zero
    std::string secure_id;          // "Secure-ID:"
    std::string soc;                // "SoC:"
};

// Reads a board identity file with fscanf "%20s %64s\n" pairs until a read
// yields fewer than two items; a read error ends the scan like the end of
// the file, and the pairs read before it stay. Keys are compared exactly,
// colon included; other keys are ignored and a later line overrides an
// earlier one. Throws ErrnoException(errno, path) when the file cannot be
// opened.
BoardIdentity ReadBoardId(const std::string& path);
// The same scan of an open stream.
BoardIdentity ReadBoardId(std::FILE* file);
