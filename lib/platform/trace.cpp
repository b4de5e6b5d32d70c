#include "platform/trace.h"

#include <termios.h>
#include <unistd.h>

#include "platform/assert.h"

namespace corvid {

namespace {
MessageCapture* s_capture = nullptr;
} // namespace

MessageCapture::MessageCapture()
{
    CORVID_ASSERT(s_capture == nullptr, "lib/platform/trace", 16,
                  "corvid::MessageCapture::MessageCapture()", "s_capture == nullptr");
    s_capture = this;
}

MessageCapture::~MessageCapture()
{
    s_capture = nullptr;
}

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

MessageCapture* ActiveCapture() noexcept
{
    return s_capture;
}

void Capture(MessageCapture& capture, std::string_view format, fmt::format_args args, bool guarded)
{
    if (!guarded)
        return capture.Add(fmt::vformat(format, args));
    try {
        capture.Add(fmt::vformat(format, args));
    } catch (const std::exception& e) {
        capture.Add("Message '" + std::string(format) + "' threw '" + e.what() + "'\n");
    }
}

} // namespace detail
} // namespace corvid
