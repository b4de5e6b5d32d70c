// Options shared by the identity subcommands: where the Secure ID, the
// serial number and the environment come from.
#pragma once

#include <initializer_list>
#include <string>

#include "command.h"
#include "hardware/board_id.h"
#include "hardware/bootloader_environment.h"
#include "hardware/firmware_versions.h"
#include "hardware/vx_device_data.h"

namespace vxtool {

// --secure-id ID when given, else the Secure ID of the board identity in
// --boardid FILE (default /proc/boardid, which a saved copy can stand in for),
// read as the player reads it; empty when the file has no "Secure-ID:" line
// or, for the live file only, cannot be opened (a --boardid FILE that cannot
// be read is an error).
std::string TakeSecureId(Arguments& args);

// Throws UsageError unless the player can read the Secure ID back from its
// board identity: 1 to 64 characters, none of them blank.
void RequireReadableSecureId(const std::string& secure_id);

// The usage text of the environment source options.
inline constexpr const char* ENV_SOURCE_USAGE =
    "[--env-mtd NAME | --env-image FILE --env-erase-size BYTES [--env-write-size BYTES] "
    "[--env-bad-blocks N,N,...]]";

// Takes the source options with a prefix and, when there were any, puts the
// partition they name (an image, or another MTD partition) in place of the
// live partition called name in vxtool's context.
void TakePrefixedPartition(Arguments& args, const std::string& prefix, const std::string& name);

// What was saved from a player, standing in for its live files and
// partitions: "--boardid FILE" for /proc/boardid and so on, and the
// partitions' prefixed source options ("--env-image FILE ...").
struct SavedFile {
    const char* option;
    const char* live_path;
};
struct SavedPartition {
    const char* prefix;
    const char* name;
};
inline constexpr SavedFile SAVED_BOARD_ID{"--boardid", BOARD_ID_PATH};
inline constexpr SavedFile SAVED_VERSION_FILE{"--version-file", VERSION_FILE_PATH};
inline constexpr SavedPartition SAVED_ENVIRONMENT{"env", BOOTLOADER_ENVIRONMENT_PARTITION};
inline constexpr SavedPartition SAVED_DEVICE_DATA{"devdata", DEVICE_DATA_PARTITION};
inline constexpr SavedPartition SAVED_BOOTLOADER{"bolt", BOOTLOADER_PARTITION};
inline constexpr SavedPartition SAVED_RESCUE_KERNEL{"rescue", RESCUE_KERNEL_PARTITION};

// Takes the options of the saved files and partitions a command reads, each
// given one put in place of the live one in vxtool's context.
void TakeSavedPlayer(Arguments& args, std::initializer_list<SavedFile> files,
                     std::initializer_list<SavedPartition> partitions);

} // namespace vxtool
