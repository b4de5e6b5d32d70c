#include "identity_options.h"

#include <termios.h>
#include <unistd.h>

#include <iostream>
#include <stdexcept>

#include <fmt/format.h>

#include "hardware/board_id.h"
#include "hardware/context.h"
#include "platform/posix_helpers.h"

namespace vxtool {

SecureId TakeSecureId(Arguments& args)
{
    SecureId id;
    std::string boardid;
    const bool have_secure_id = TakeOption(args, "--secure-id", id.value);
    const bool have_boardid = TakeOption(args, "--boardid", boardid);
    if (have_secure_id && have_boardid)
        throw UsageError("--secure-id and --boardid exclude each other");
    if (have_secure_id) {
        id.source = "--secure-id";
        if (id.value.empty())
            id.absence = "--secure-id is empty";
        return id;
    }
    // A file named on the command line must be there; the live one may be
    // missing (a development machine).
    id.source = have_boardid ? boardid : Context::GetInstance()->Path(BOARD_ID_PATH);
    try {
        id.value = ReadBoardId(id.source).secure_id;
    } catch (const corvid::ErrnoException& e) {
        if (have_boardid)
            throw;
        id.absence = e.what();
        return id;
    }
    if (id.value.empty())
        id.absence = fmt::format("no \"Secure-ID:\" line in {}", id.source);
    return id;
}

void RequireReadableSecureId(const std::string& secure_id)
{
    // The player reads the value as one word of at most 64 characters.
    if (secure_id.empty() || secure_id.size() > 64 ||
        secure_id.find_first_of(" \t\n\v\f\r") != std::string::npos)
        throw UsageError(fmt::format("--secure-id '{}': the player reads 1 to 64 characters without blanks",
                                     secure_id));
}

std::string ReadPinFromStandardInput(const std::string& token)
{
    termios saved{};
    const bool terminal = isatty(STDIN_FILENO) && tcgetattr(STDIN_FILENO, &saved) == 0;
    if (terminal) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
        fmt::print(stderr, "PIN for token '{}': ", token);
    }
    std::string pin;
    const bool read = static_cast<bool>(std::getline(std::cin, pin));
    if (terminal) {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
        fmt::print(stderr, "\n");
    }
    if (!read)
        throw std::runtime_error(fmt::format("no PIN for token '{}' on standard input", token));
    if (!pin.empty() && pin.back() == '\r')
        pin.pop_back();
    return pin;
}

} // namespace vxtool
