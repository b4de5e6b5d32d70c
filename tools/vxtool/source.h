// Where vxtool reads a partition from: a live MTD partition by name, or a
// raw image file taken from a player.
#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "command.h"
#include "platform/nand_access.h"

namespace vxtool {

// The usage text of the source options.
inline constexpr const char* SOURCE_USAGE =
    "[--mtd NAME | --image FILE --erase-size BYTES [--write-size BYTES] [--bad-blocks N,N,...]]";

// Takes the source options out of args and opens the partition they name:
//   --mtd NAME      the MTD partition called NAME in /proc/mtd (the default,
//                   with default_mtd as NAME, when no source option is given)
//   --image FILE    a raw dump of the partition, all blocks in physical order,
//                   bad ones included, no OOB; needs --erase-size; --write-size
//                   defaults to 2048; --bad-blocks lists erase-block indexes.
// Throws UsageError for inconsistent options.
NandAccess::Pointer OpenSource(Arguments& args, const std::string& default_mtd);

// The same in two steps, so that a command can check the rest of its command
// line before anything is opened.
struct SourceOptions {
    std::string mtd;   // partition name; used when image is empty
    std::string image; // image path
    std::size_t erase_size = 0;
    std::size_t write_size = 2048;
    std::set<std::size_t> bad_blocks;
    bool given = false; // any source option was on the command line
};
// With a prefix ("env-"), the options are --env-mtd, --env-image, ... and
// every message names them so. An image of the device-data partition must
// have the player's 2048-byte pages.
SourceOptions TakeSourceOptions(Arguments& args, const std::string& default_mtd, const std::string& prefix = "");

// Parses the erase-block indexes of an option like --bad-blocks ("N,N,...");
// throws UsageError naming the option for anything that is not a number.
std::set<std::size_t> ParseBlockList(const std::string& option, const std::string& text);
NandAccess::Pointer OpenSource(const SourceOptions& options);

} // namespace vxtool
