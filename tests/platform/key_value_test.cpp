#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/key_value.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs Calls(const std::string& text, const char* pairs, const char* kv, const char* trim)
{
    Pairs calls;
    corvid::ParseKeyValuePairs(text, pairs, kv, trim,
                               [&](const std::string& k, const std::string& v) {
                                   calls.emplace_back(k, v);
                               });
    return calls;
}

TEST(ParseKeyValuePairs, MeminfoLines)
{
    const auto map = corvid::ParseKeyValuePairs(
        "MemTotal:        2048000 kB\nMemFree:  1 kB\nHugePages_Total:\t0\n", "\n", ": ", " \t");
    EXPECT_EQ(map, (std::map<std::string, std::string>{
                       {"HugePages_Total", "0"}, {"MemFree", "1 kB"}, {"MemTotal", "2048000 kB"}}));
}

TEST(ParseKeyValuePairs, KernelCommandLine)
{
    EXPECT_EQ(Calls("quiet vx.debug=1\tvx.debug=0 root=/dev/x=y ", " \t", "=", ""),
              (Pairs{{"quiet", ""}, {"vx.debug", "1"}, {"vx.debug", "0"}, {"root", "/dev/x=y"}}));
    // The map keeps the last of repeated keys.
    EXPECT_EQ(corvid::ParseKeyValuePairs("a=1 a=2", " \t", "=", "").at("a"), "2");
}

TEST(ParseKeyValuePairs, FirstImagesText)
{
    EXPECT_EQ(Calls(";version=8.0.1;;minimum_firmware_version=8.0.0;k=;=v; x ", ";", "=", ""),
              (Pairs{{"version", "8.0.1"},
                     {"minimum_firmware_version", "8.0.0"},
                     {"k", ""},
                     {"", "v"},
                     {" x ", ""}}));
}

TEST(ParseKeyValuePairs, TrimmingAndBlankPairs)
{
    // Only the first separator character splits; a second one belongs to the
    // value and is removed only as a trim character.
    EXPECT_EQ(Calls("k:: v \n   \n\t\nkey only \nsep:\nx: \t", "\n", ": ", " \t"),
              (Pairs{{"k", ": v"}, {"key", "only"}, {"sep", ""}, {"x", ""}}));
    EXPECT_EQ(Calls("k=:v", "\n", ":=", ""), (Pairs{{"k", ":v"}}));
    EXPECT_TRUE(Calls("\n\n\n", "\n", ": ", " \t").empty());
    EXPECT_TRUE(Calls("", "\n", ": ", " \t").empty());
}

TEST(ParseKeyValuePairs, MissingCallableIsAnError)
{
    EXPECT_THROW(corvid::ParseKeyValuePairs("a=1", " ", "=", "", corvid::KeyValueCallback()),
                 std::bad_function_call);
}

} // namespace
