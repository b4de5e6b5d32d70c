#include "platform/trace.h"

#include <termios.h>
#include <unistd.h>

namespace corvid {

StderrTrace::~StderrTrace()
{
    Flush();
}

void StderrTrace::Write(const char* text)
{
    std::fputs(text, stderr);
}

int StderrTrace::Flush()
{
    std::fflush(stderr);
    // Fails harmlessly (ENOTTY) when standard error is not a terminal.
    return tcdrain(fileno(stderr));
}

namespace detail {

void ReportPrintFailure(std::FILE* stream, std::string_view format, const char* what) noexcept
{
    // Written without fmt so that the report itself cannot fail to format.
    std::fputs("Message '", stream);
    std::fwrite(format.data(), 1, format.size(), stream);
    std::fputs("' threw '", stream);
    std::fputs(what, stream);
    std::fputs("'\n", stream);
}

} // namespace detail
} // namespace corvid
