// Options shared by the identity subcommands: where the Secure ID, the
// serial number and the environment come from.
#pragma once

#include <string>

#include "command.h"

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

} // namespace vxtool
