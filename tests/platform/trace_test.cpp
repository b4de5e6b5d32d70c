#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "platform/trace.h"
#include "support/sandbox.h"

namespace {

// Captures what a function writes to a C stream.
template <typename F>
std::string Captured(F&& write)
{
    std::FILE* stream = std::tmpfile();
    write(stream);
    std::fflush(stream);
    std::rewind(stream);
    std::string text;
    for (int c; (c = std::fgetc(stream)) != EOF;)
        text.push_back(static_cast<char>(c));
    std::fclose(stream);
    return text;
}

struct Throwing {};

} // namespace

template <>
struct fmt::formatter<Throwing> : fmt::formatter<int> {
    template <typename Context>
    auto format(const Throwing&, Context&) const -> decltype(std::declval<Context>().out())
    {
        throw std::runtime_error("no text for this value");
    }
};

namespace {

TEST(GuardedPrint, FormatsReplacementFields)
{
    EXPECT_EQ(Captured([](std::FILE* f) {
                  corvid::GuardedPrint(f, "hw={:x} sk={:d} {}KB.\n", 0x1fULL, true, 204799UL);
              }),
              "hw=1f sk=1 204799KB.\n");
}

TEST(GuardedPrint, ReportsFormattingFailureWithTheUnformattedText)
{
    // A bad format specifier and a formatter that throws are both reported in
    // place of the message, and the caller goes on.
    EXPECT_EQ(Captured([](std::FILE* f) { corvid::GuardedPrint(f, "value {:q}\n", 5); }),
              "Message 'value {:q}\n' threw 'invalid type specifier'\n");
    EXPECT_EQ(Captured([](std::FILE* f) {
                  corvid::GuardedPrint(f, "ERROR: {}\n", Throwing{});
                  corvid::GuardedPrint(f, "next\n");
              }),
              "Message 'ERROR: {}\n' threw 'no text for this value'\nnext\n");
    EXPECT_EQ(Captured([](std::FILE* f) { corvid::GuardedPrint(f, "{} {}\n", 1); }),
              "Message '{} {}\n' threw 'argument not found'\n");
}

TEST(GuardedPrint, PlainPrintLetsFormattingFailuresEscape)
{
    EXPECT_THROW(corvid::Print("{:q}", 5), fmt::format_error);
}

TEST(StderrTrace, WritesTextAsItStandsAndFlushes)
{
    vxtest::TempDir dir;
    const std::string path = dir.Path() + "/err";
    fflush(stderr);
    const int saved = dup(2);
    std::FILE* target = std::fopen(path.c_str(), "we");
    ASSERT_NE(target, nullptr);
    dup2(fileno(target), 2);
    int flush_result = 0;
    {
        corvid::StderrTrace trace;
        trace.Write("first line\n");
        trace.Write("no line end");
        flush_result = trace.Flush();
        trace.Write(" tail");
    } // the destructor flushes the tail
    dup2(saved, 2);
    close(saved);
    std::fclose(target);
    EXPECT_EQ(vxtest::ReadFile(path), "first line\nno line end tail");
    EXPECT_EQ(flush_result, -1); // tcdrain on a regular file fails harmlessly
}

} // namespace
