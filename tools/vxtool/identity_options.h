// Options shared by the identity subcommands: where the Secure ID, the
// serial number and the environment come from.
#pragma once

#include <string>

#include "command.h"

namespace vxtool {

// Path of the kernel's board identity.
inline constexpr const char* BOARDID_PATH = "/proc/boardid";

// The value of the "Secure-ID:" line of the board identity, read as the
// player reads it (fscanf "%20s %64s" pairs up to the first incomplete one),
// or the empty text when the file cannot be opened or has no such line.
std::string ReadSecureIdFromBoardId(const char* path = BOARDID_PATH);

// --secure-id ID when given, else the Secure ID of the board identity in
// --boardid FILE (default /proc/boardid, which a saved copy can stand in for).
std::string TakeSecureId(Arguments& args);

// The usage text of the environment source options.
inline constexpr const char* ENV_SOURCE_USAGE =
    "[--env-mtd NAME | --env-image FILE --env-erase-size BYTES [--env-write-size BYTES] "
    "[--env-bad-blocks N,N,...]]";

// Takes --env-mtd, --env-image, --env-erase-size, --env-write-size and
// --env-bad-blocks out of args into a separate argument list with the
// prefix removed, ready for TakeSourceOptions. Returns true when any was
// present.
bool TakeEnvironmentSourceArguments(Arguments& args, Arguments& env_args);

} // namespace vxtool
