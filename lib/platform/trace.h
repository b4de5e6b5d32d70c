// Diagnostic output: trace sinks and the guarded print.
#pragma once

#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace corvid {

// Abstract trace sink.
class BaseTrace {
public:
    virtual ~BaseTrace() = default;
    // Writes a NUL-terminated text as it stands.
    virtual void Write(const char* text) = 0;
    // Pushes everything written so far out; returns 0 on success.
    virtual int Flush() = 0;
};

// Trace sink on standard error. Flushing waits until a terminal has
// transmitted every byte (tcdrain), so nothing is lost before a reset.
class StderrTrace : public BaseTrace {
public:
    ~StderrTrace() override;
    void Write(const char* text) override;
    int Flush() override;
};

// Takes the messages of the prints below in place of standard error for as
// long as it lives, each print one message as it would have been written: a
// program that answers in a format of its own (vxtool --json) hands them on
// as data. One at a time per process; the check never makes one.
class MessageCapture {
public:
    MessageCapture();
    ~MessageCapture();
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

    const std::vector<std::string>& Messages() const { return m_messages; }
    void Add(std::string message) { m_messages.push_back(std::move(message)); }

private:
    std::vector<std::string> m_messages;
};

namespace detail {
void ReportPrintFailure(std::FILE* stream, std::string_view format, const char* what) noexcept;
// The capture that takes the prints now, or nullptr.
MessageCapture* ActiveCapture() noexcept;
void Capture(MessageCapture& capture, std::string_view format, fmt::format_args args, bool guarded);
} // namespace detail

// Formats with fmt replacement fields and writes the result to stream. If
// formatting or writing throws a standard exception, writes
// "Message '<format>' threw '<what>'\n" instead and returns normally, so that
// reporting a failure can never itself fail. Other exceptions pass on.
template <typename... Args>
void GuardedPrint(std::FILE* stream, std::string_view format, const Args&... args)
{
    try {
        fmt::vprint(stream, format, fmt::make_format_args(args...));
    } catch (const std::exception& e) {
        detail::ReportPrintFailure(stream, format, e.what());
    }
}

// The guarded print to standard error: a formatting or writing failure is
// reported in place of the message and never escapes.
template <typename... Args>
void PrintGuarded(std::string_view format, const Args&... args)
{
    if (MessageCapture* capture = detail::ActiveCapture())
        return detail::Capture(*capture, format, fmt::make_format_args(args...), true);
    GuardedPrint(stderr, format, args...);
}

// The plain print to standard error: a formatting or writing failure
// escapes to the caller as an exception.
template <typename... Args>
void PrintPlain(std::string_view format, const Args&... args)
{
    if (MessageCapture* capture = detail::ActiveCapture())
        return detail::Capture(*capture, format, fmt::make_format_args(args...), false);
    fmt::vprint(stderr, format, fmt::make_format_args(args...));
}

} // namespace corvid
