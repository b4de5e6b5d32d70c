#include "identity_options.h"

#include <fmt/format.h>

#include "hardware/board_id.h"
#include "hardware/context.h"
#include "platform/posix_helpers.h"

namespace vxtool {

std::string TakeSecureId(Arguments& args)
{
    std::string secure_id, boardid;
    const bool have_secure_id = TakeOption(args, "--secure-id", secure_id);
    const bool have_boardid = TakeOption(args, "--boardid", boardid);
    if (have_secure_id && have_boardid)
        throw UsageError("--secure-id and --boardid exclude each other");
    if (have_secure_id)
        return secure_id;
    // A file named on the command line must be there; the live one may be
    // missing (a development machine).
    if (have_boardid)
        return ReadBoardId(boardid).secure_id;
    try {
        return ReadBoardId(Context::GetInstance()->Path(BOARD_ID_PATH)).secure_id;
    } catch (const corvid::ErrnoException&) {
        return std::string();
    }
}

void RequireReadableSecureId(const std::string& secure_id)
{
    // The player reads the value as one word of at most 64 characters.
    if (secure_id.empty() || secure_id.size() > 64 ||
        secure_id.find_first_of(" \t\n\v\f\r") != std::string::npos)
        throw UsageError(fmt::format("--secure-id '{}': the player reads 1 to 64 characters without blanks",
                                     secure_id));
}

} // namespace vxtool
