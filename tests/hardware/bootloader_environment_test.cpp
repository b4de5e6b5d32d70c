// The environment block: parser, loader, load fallback, cache and encoder.
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hardware/bootloader_environment.h"
#include "platform/posix_helpers.h"
#include "support/memory_nand.h"

namespace {

using Variables = std::map<std::string, std::string>;
using Call = MemoryNandAccess::Call;

const char* const CORRUPT = "BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n";
const char* const NO_EQUALS = "No equals sign in environment string\n";

std::string Record(const std::string& text, char type = '\x01')
{
    return std::string(1, type) + static_cast<char>(text.size() + 1) + '\0' + text;
}

// Records, the end byte, and erased flash up to size.
std::string Block(const std::string& records, std::size_t size = 256)
{
    std::string block = records + '\0';
    block.resize(size, '\xFF');
    return block;
}

struct Outcome {
    Variables variables;
    std::string error; // the parser's exception, if any
    std::string err;   // what was written to standard error
};

Outcome Parse(const std::string& block)
{
    Outcome outcome;
    testing::internal::CaptureStderr();
    try {
        outcome.variables = ParseBootloaderEnvironmentBlock(block);
    } catch (const std::runtime_error& e) {
        outcome.error = e.what();
    }
    outcome.err = testing::internal::GetCapturedStderr();
    return outcome;
}

TEST(BootloaderEnvironmentParseTest, ReadsRecordsIntoTheMap)
{
    const Outcome outcome = Parse(Block(Record("B=2") + Record("A=1") + Record("K=a=b") +
                                        Record("E=") + Record("=v") + Record("A=3")));
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.variables,
              (Variables{{"", "v"}, {"A", "3"}, {"B", "2"}, {"E", ""}, {"K", "a=b"}}));
}

TEST(BootloaderEnvironmentParseTest, EmptyBlocks)
{
    for (const std::string& block : {std::string(), std::string(64, '\xFF'), Block("")}) {
        const Outcome outcome = Parse(block);
        EXPECT_EQ(outcome.error, "");
        EXPECT_EQ(outcome.err, "");
        EXPECT_TRUE(outcome.variables.empty());
    }
}

TEST(BootloaderEnvironmentParseTest, RecordsWithoutEqualsSignAreReportedAndSkipped)
{
    // A plain text, an empty text (length 1) and a record of length 0.
    const std::string zero_length = std::string("\x01\x00", 2);
    const Outcome outcome =
        Parse(Block(Record("A=1") + Record("JUNK") + Record("") + zero_length + Record("B=2")));
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.err, std::string(NO_EQUALS) + NO_EQUALS + NO_EQUALS);
    EXPECT_EQ(outcome.variables, (Variables{{"A", "1"}, {"B", "2"}}));
}

TEST(BootloaderEnvironmentParseTest, MalformedBlocksThrow)
{
    EXPECT_EQ(Parse(Block(Record("A=1") + Record("B=2", '\x02'))).error, "Unknown record type");
    EXPECT_EQ(Parse(Block(Record("A=1", '\x02'))).error, "Unknown record type");
    // Erased flash after a record, without the end byte.
    EXPECT_EQ(Parse(Record("A=1") + std::string(16, '\xFF')).error, "Unknown record type");

    // A record whose length byte is the block's last byte.
    EXPECT_EQ(Parse(Record("A=1") + '\x01').error, "Record header truncated");
    // The length runs one byte past the end.
    const std::string record = Record("A=12");
    EXPECT_EQ(Parse(record.substr(0, record.size() - 1)).error, "Record content truncated");
    EXPECT_EQ(Parse(Block(Record("A=1") + "\x01\xFF\x00" + "X=1", 64)).error,
              "Record content truncated");
}

TEST(BootloaderEnvironmentParseTest, RecordsFillingTheBlockEndTheList)
{
    const Outcome full = Parse(Record("A=1") + Record("B=2"));
    EXPECT_EQ(full.error, "");
    EXPECT_EQ(full.variables, (Variables{{"A", "1"}, {"B", "2"}}));

    // A zero-length record whose flags byte would lie past the end.
    const Outcome tail = Parse(Record("A=1") + std::string("\x01\x00", 2));
    EXPECT_EQ(tail.error, "");
    EXPECT_EQ(tail.err, NO_EQUALS);
    EXPECT_EQ(tail.variables, (Variables{{"A", "1"}}));
}

constexpr std::size_t E = 4096;

TEST(BootloaderEnvironmentLoadTest, ReadsTheFirstGoodBlock)
{
    auto nand = MemoryNandAccess::Create(8 * E, E);
    nand->SetBadBlocks({0, 1});
    nand->Poke(0, Block(Record("X=bad0"), E) + Block(Record("X=bad1"), E) +
                      Block(Record("VX_SERIAL=S1") + Record("VX_FORMAT=1"), E) +
                      Block(Record("X=next"), E));

    const BootloaderEnvironment environment = LoadBootloaderEnvironment(*nand);
    EXPECT_EQ(environment.variables, (Variables{{"VX_FORMAT", "1"}, {"VX_SERIAL", "S1"}}));
    EXPECT_EQ(environment.Get("VX_SERIAL"), "S1");
    EXPECT_EQ(environment.Get("VX_HWREV"), "");
    EXPECT_EQ(nand->Calls(), (std::vector<Call>{{"IsBadBlock", 0, 0},
                                                {"IsBadBlock", E, 0},
                                                {"IsBadBlock", 2 * E, 0},
                                                {"Read", 2 * E, E}}));
}

TEST(BootloaderEnvironmentLoadTest, EveryBlockBadAsksOncePastTheEnd)
{
    for (const bool reject : {false, true}) {
        auto nand = MemoryNandAccess::Create(3 * E, E);
        nand->SetBadBlocks({0, 1, 2});
        nand->SetRejectOutOfRange(reject);
        testing::internal::CaptureStderr();
        const BootloaderEnvironment environment =
            LoadBootloaderEnvironmentOrEmpty([&] { return nand; });
        EXPECT_EQ(testing::internal::GetCapturedStderr(), CORRUPT);
        EXPECT_TRUE(environment.variables.empty());
        EXPECT_EQ(nand->Calls(), (std::vector<Call>{{"IsBadBlock", 0, 0},
                                                    {"IsBadBlock", E, 0},
                                                    {"IsBadBlock", 2 * E, 0},
                                                    {"IsBadBlock", 3 * E, 0}}));
    }

    auto nand = MemoryNandAccess::Create(3 * E, E);
    nand->SetBadBlocks({0, 1, 2});
    try {
        LoadBootloaderEnvironment(*nand);
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "All BOLT environment NAND blocks are bad");
    }
}

TEST(BootloaderEnvironmentLoadTest, AnyFailureGivesTheEmptyEnvironment)
{
    // A corrupt record after good ones: nothing of the block survives.
    auto corrupt = MemoryNandAccess::Create(2 * E, E);
    corrupt->PokeGood(Block(Record("A=1") + Record("B=2", '\x02'), E));
    // A length that runs past the end of the block.
    auto truncated = MemoryNandAccess::Create(32, 16, 16, 0);
    truncated->Poke(0, Record("A=1") + std::string("\x01\x0A\x00" "B=12345", 10));
    for (const auto& nand : {corrupt, truncated}) {
        testing::internal::CaptureStderr();
        const BootloaderEnvironment environment =
            LoadBootloaderEnvironmentOrEmpty([&] { return nand; });
        EXPECT_EQ(testing::internal::GetCapturedStderr(), CORRUPT);
        EXPECT_TRUE(environment.variables.empty());
    }

    testing::internal::CaptureStderr();
    const BootloaderEnvironment unopened = LoadBootloaderEnvironmentOrEmpty(
        []() -> NandAccess::Pointer { throw corvid::ErrnoException(ENOENT); });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), CORRUPT);
    EXPECT_TRUE(unopened.variables.empty());
}

TEST(BootloaderEnvironmentCacheTest, HostWithoutFlashLoadsOnceAndGetsEmptyMap)
{
    std::ifstream mtd("/proc/mtd");
    std::string table((std::istreambuf_iterator<char>(mtd)), std::istreambuf_iterator<char>());
    if (table.find("\"flash0.nvram\"") != std::string::npos)
        GTEST_SKIP() << "this machine has a real environment partition";

    // A fresh process, so that no earlier test has filled the cache.
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            const bool first = GetBootloaderEnvironment().variables.empty();
            const bool second = GetBootloaderEnvironment().variables.empty();
            std::exit(first && second ? 0 : 1);
        },
        testing::ExitedWithCode(0),
        "^BOOTLOADER ENVIRONMENT CORRUPT\\. PLEASE RUN MANUFACTURING TEST\n$");
}

TEST(BootloaderEnvironmentEncodeTest, WritesOneErasedBlockOfRecords)
{
    const std::string block = EncodeBootloaderEnvironmentBlock({"B=2", "A=x=y", "A=1", "E="}, 64);
    EXPECT_EQ(block, Block(Record("B=2") + Record("A=x=y") + Record("A=1") + Record("E="), 64));
    EXPECT_EQ(EncodeBootloaderEnvironmentBlock({}, 4), std::string("\0\xFF\xFF\xFF", 4));

    // The length byte counts the flags byte too: 254 text bytes at most.
    const std::string longest = "K=" + std::string(252, 'v');
    EXPECT_EQ(EncodeBootloaderEnvironmentBlock({longest}, 512).substr(0, 257),
              std::string("\x01\xFF\x00", 3) + longest);
    EXPECT_THROW(EncodeBootloaderEnvironmentBlock({longest + "v"}, 512), std::runtime_error);
    EXPECT_THROW(EncodeBootloaderEnvironmentBlock({"NOEQUALS"}, 512), std::runtime_error);
    // A record (3 + 3 bytes) and the end byte fit exactly in 7 bytes, not in 6.
    EXPECT_EQ(EncodeBootloaderEnvironmentBlock({"A=1"}, 7).size(), 7u);
    EXPECT_THROW(EncodeBootloaderEnvironmentBlock({"A=1"}, 6), std::runtime_error);
}

} // namespace
