// A capture: everything the start-up check reads on a player, saved once in
// one directory by "vxtool capture", and read back by the reading commands'
// "--capture DIR" in place of the live player. The directory holds:
//   manifest.json     what was captured (CAPTURE_FORMAT, CAPTURE_VERSION)
//   flash/mtdN.img    partition N as the kernel's reads return it (ECC
//                     applied): every erase block in physical order
//   flash/mtdN.raw    the same pages as the chip holds them, each followed by
//                     its OOB bytes (nanddump --oob --noecc's layout)
//   files/proc/...    /proc/mtd, /proc/boardid, /proc/meminfo, /proc/cmdline
//   files/etc/...     /etc/veltrix-version
//   sys/class/...     eth0's directory with its address, GPIO line 64
// and the manifest holds the AVS status block's 18 words and the check's
// own report of the moment ("vxtool report --json"). A source the player
// did not have is recorded as absent (null in the manifest, no file).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace vxtool {

inline constexpr const char* CAPTURE_FORMAT = "vx-capture";
inline constexpr int CAPTURE_VERSION = 1;
inline constexpr const char* CAPTURE_MANIFEST = "manifest.json";

// The live files a capture holds, under files/ by their live path.
inline constexpr std::array<const char*, 5> CAPTURED_FILES = {"/proc/mtd", "/proc/boardid", "/proc/meminfo",
                                                             "/proc/cmdline", "/etc/veltrix-version"};

// One captured partition, as the manifest describes it.
struct CapturedPartition {
    std::string name;   // "flash0.nvram"
    std::string device; // "/dev/mtd0" on the player
    std::size_t size = 0;
    std::size_t erase_size = 0;
    std::size_t write_size = 0;
    std::size_t oob_size = 0;
    std::vector<std::size_t> bad_blocks; // erase-block indexes, as MEMGETBADBLOCK answered
    std::string image;                   // "flash/mtd0.img", relative to the capture
    std::string raw;                     // "flash/mtd0.raw"; empty when the kernel gave no raw access
};

nlohmann::json ToJson(const CapturedPartition& partition);
// Throws std::runtime_error naming the key for a partition entry that is
// not what a capture writes.
CapturedPartition PartitionFromJson(const nlohmann::json& entry);

// Reads and checks the manifest of the capture in dir: std::runtime_error
// "DIR: not a capture (...)" for a missing or unreadable manifest, another
// format or a version this vxtool does not read.
nlohmann::json ReadManifest(const std::string& dir);

// Puts the capture in dir in place of the live player in vxtool's context:
// its partitions (the ECC-applied images), files, /sys entries, AVS block
// and eth0 address. A source the capture records as absent reads as absent.
// Entries that the library opens for writing (the GPIO line, /dev/mem) are
// copies in a private temporary directory, removed at exit, so reading a
// capture never changes it.
void UseCapture(const std::string& dir);

} // namespace vxtool
