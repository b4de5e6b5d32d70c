// Options shared by the identity subcommands: where the Secure ID comes
// from, and what the player can read back of one.
#pragma once

#include <string>

#include "command.h"

namespace vxtool {

struct SecureId {
    std::string value;
    // Where it came from: "--secure-id", or the board identity's path.
    std::string source;
    // Why it is empty, when it is ("no "Secure-ID:" line in /proc/boardid").
    std::string absence;
};

// --secure-id ID when given, else the Secure ID of the board identity in
// --boardid FILE (default /proc/boardid, which a saved copy can stand in for),
// read as the player reads it; empty when the file has no "Secure-ID:" line
// or, for the live file only, cannot be opened (a --boardid FILE that cannot
// be read is an error).
SecureId TakeSecureId(Arguments& args);

// Throws UsageError unless the player can read the Secure ID back from its
// board identity: 1 to 64 characters, none of them blank.
void RequireReadableSecureId(const std::string& secure_id);

// The PIN of a token whose URI names no pin-source: the first line of
// standard input, asked for without echo when standard input is a terminal.
// Never an option: a command line is seen by every user of the machine.
std::string ReadPinFromStandardInput(const std::string& token);

} // namespace vxtool
