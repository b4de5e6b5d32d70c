#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "platform/trace.h"
#include "support/programs.h"

namespace {

struct Throwing {};

// What a function writes to a C stream.
template <typename F>
std::string Captured(F&& write)
{
    std::FILE* stream = std::tmpfile();
    write(stream);
    std::rewind(stream);
    std::string text;
    for (int c; (c = std::fgetc(stream)) != EOF;)
        text.push_back(static_cast<char>(c));
    std::fclose(stream);
    return text;
}

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

TEST(GuardedPrint, FormatsOrReportsTheUnformattedText)
{
    EXPECT_EQ(Captured([](std::FILE* f) {
                  corvid::GuardedPrint(f, "hw={:x} sk={:d} {}KB.\n", 0x1fULL, true, 204799UL);
                  corvid::GuardedPrint(f, "value {:q}\n", 5);
                  corvid::GuardedPrint(f, "ERROR: {}\n", Throwing{});
                  corvid::GuardedPrint(f, "{} {}\n", 1);
              }),
              "hw=1f sk=1 204799KB.\n"
              "Message 'value {:q}\n' threw 'invalid type specifier'\n"
              "Message 'ERROR: {}\n' threw 'no text for this value'\n"
              "Message '{} {}\n' threw 'argument not found'\n");
    EXPECT_THROW(corvid::PrintPlain("{:q}", 5), fmt::format_error); // the plain print lets it escape
}

TEST(StderrTrace, WritesTextAsItStandsAndFlushesOnDestruction)
{
    vxtest::TempDir dir;
    const std::string path = dir.WriteFile("err", "");
    std::fflush(stderr);
    const int saved = dup(2);
    std::FILE* target = std::fopen(path.c_str(), "we");
    dup2(fileno(target), 2);
    int flushed = 0;
    {
        corvid::StderrTrace trace;
        trace.Write("first line\nno line end");
        flushed = trace.Flush();
        trace.Write(" tail");
    }
    dup2(saved, 2);
    close(saved);
    std::fclose(target);
    EXPECT_EQ(vxtest::ReadFile(path), "first line\nno line end tail");
    EXPECT_EQ(flushed, -1); // tcdrain on a regular file fails harmlessly
}

} // namespace
