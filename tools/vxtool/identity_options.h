// Options shared by the identity subcommands: where the Secure ID comes
// from, and what the player can read back of one.
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

} // namespace vxtool
