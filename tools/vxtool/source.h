// Where a vxtool command reads from: the live player, or what was saved
// from a returned one. One grammar for every command. A partition is named
// by the options with its prefix P (env, devdata, bolt, rescue):
//   --P-mtd NAME     the MTD partition called NAME in /proc/mtd
//   --P-image FILE --P-erase-size BYTES [--P-write-size BYTES] [--P-bad-blocks N,N,...]
//                    a raw dump of the partition: all blocks in physical
//                    order, bad ones included, no OOB; --P-write-size
//                    defaults to 2048, --P-bad-blocks lists erase-block indexes
// and a saved file by its own option ("--boardid FILE" for /proc/boardid).
// Either is put in place of the live one in vxtool's context, so that the
// library's own code reads it as it reads the player's. Without them a
// command reads the live partition or file. A command that has a partition
// of its own (env, srb, devdata, blessings) also takes its options without
// the prefix (--mtd, --image, ...), the spelling it has always had.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <set>
#include <string>
#include <vector>

#include "command.h"
#include "hardware/board_id.h"
#include "hardware/bootloader_environment.h"
#include "hardware/firmware_versions.h"
#include "hardware/vx_device_data.h"

namespace vxtool {

// A partition a command reads: its option prefix and its /proc/mtd name.
struct Partition {
    const char* prefix;
    const char* name;
};
inline constexpr Partition ENVIRONMENT{"env", BOOTLOADER_ENVIRONMENT_PARTITION};
inline constexpr Partition DEVICE_DATA{"devdata", DEVICE_DATA_PARTITION};
inline constexpr Partition BOOTLOADER{"bolt", BOOTLOADER_PARTITION};
inline constexpr Partition RESCUE_KERNEL{"rescue", RESCUE_KERNEL_PARTITION};

// A live file that a saved copy may stand in for.
struct SavedFile {
    const char* option; // "--boardid"
    const char* live_path;
};
inline constexpr SavedFile SAVED_BOARD_ID{"--boardid", BOARD_ID_PATH};
inline constexpr SavedFile SAVED_VERSION_FILE{"--version-file", VERSION_FILE_PATH};

// The usage text of a partition's options, "[--env-mtd NAME | --env-image
// FILE ...]" (PARTITION_HELP tells the rest), with an alternative to them
// first when given ("[--serial SERIAL | --env-mtd NAME | ...]").
std::string PartitionUsage(const Partition& partition, const char* alternative = nullptr);

// The explanation of the partition options, for a command's --help.
inline constexpr const char* PARTITION_HELP =
    "Each partition is read live unless --P-mtd NAME (another MTD partition) or\n"
    "--P-image FILE --P-erase-size BYTES [--P-write-size BYTES] [--P-bad-blocks N,N,...]\n"
    "(a raw dump) names what to read in its place; P is env, devdata, bolt or rescue.\n"
    "env, srb, devdata and blessings also take their own partition's options without\n"
    "the prefix (--mtd, --image, ...).\n";

// The partitions a command reads, as its command line names them.
class PartitionOptions {
public:
    // Takes the options of the partitions out of args; own is the partition
    // that the unprefixed options name (none when nullptr). Throws UsageError
    // for inconsistent options, naming them as they were spelled. An image
    // of the device-data partition must have the player's 2048-byte pages.
    PartitionOptions(Arguments& args, std::initializer_list<Partition> partitions, const Partition* own = nullptr);

    // Whether the command line named the partition; whether as an image.
    bool Named(const Partition& partition) const;
    bool FromImage(const Partition& partition) const;

    // Opens each named partition and puts it in place of the live one in
    // vxtool's context; the command then opens every partition through the
    // context, as the player does.
    void Use() const;

private:
    struct Source {
        const char* name = nullptr; // the partition's /proc/mtd name
        std::string mtd;    // the partition to read instead; used when image is empty
        std::string image;  // image path
        std::size_t erase_size = 0;
        std::size_t write_size = 2048;
        std::set<std::size_t> bad_blocks;
    };
    const Source* Find(const Partition& partition) const;

    std::vector<Source> m_named;
};

// Takes the option of a saved file out of args and, when it is given, puts
// the file in place of the live one in vxtool's context; returns whether it
// was given.
bool TakeSavedFile(Arguments& args, const SavedFile& file);
// The same for each of files.
void TakeSavedFiles(Arguments& args, std::initializer_list<SavedFile> files);

// Parses the erase-block indexes of an option like --bad-blocks ("N,N,...");
// throws UsageError naming the option for anything that is not a number.
std::set<std::size_t> ParseBlockList(const std::string& option, const std::string& text);

} // namespace vxtool
