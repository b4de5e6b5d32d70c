// The environment block: parser, loader, load fallback, cache and encoder.
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "hardware/bootloader_environment.h"
#include "platform/posix_helpers.h"
#include "support/memory_nand.h"

namespace {

using Call = MemoryNandAccess::Call;

const std::string CORRUPT = "BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n";
const std::string NO_EQUALS = "No equals sign in environment string\n";
constexpr std::size_t E = 4096;

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

// Standard error, then "k=v;" for each variable or the parser's error.
std::string Parse(const std::string& block)
{
    testing::internal::CaptureStderr();
    std::string result;
    try {
        for (const auto& [key, value] : ParseBootloaderEnvironmentBlock(block))
            result += key + "=" + value + ";";
    } catch (const std::runtime_error& e) {
        result = e.what();
    }
    return testing::internal::GetCapturedStderr() + result;
}

TEST(BootloaderEnvironmentParseTest, Blocks)
{
    const std::string zero_length("\x01\x00", 2);
    EXPECT_EQ(Parse(Block(Record("B=2") + Record("A=1") + Record("K=a=b") + Record("E=") +
                          Record("=v") + Record("A=3"))),
              "=v;A=3;B=2;E=;K=a=b;");
    for (const std::string& empty : {std::string(), std::string(64, '\xFF'), Block("")})
        EXPECT_EQ(Parse(empty), "");
    // A plain text, an empty text (length 1) and a record of length 0.
    EXPECT_EQ(Parse(Block(Record("A=1") + Record("JUNK") + Record("") + zero_length +
                          Record("B=2"))),
              NO_EQUALS + NO_EQUALS + NO_EQUALS + "A=1;B=2;");
    // Records that fill the block end the list there.
    EXPECT_EQ(Parse(Record("A=1") + Record("B=2")), "A=1;B=2;");
    EXPECT_EQ(Parse(Record("A=1") + zero_length), NO_EQUALS + "A=1;");
    EXPECT_EQ(Parse(Block(Record("A=1") + Record("B=2", '\x02'))), "Unknown record type");
    EXPECT_EQ(Parse(Block(Record("A=1", '\x02'))), "Unknown record type");
    EXPECT_EQ(Parse(Record("A=1") + std::string(16, '\xFF')), "Unknown record type");
    EXPECT_EQ(Parse(Record("A=1") + '\x01'), "Record header truncated");
    EXPECT_EQ(Parse(Record("A=1") + Record("B=2").substr(0, 5)), "Record content truncated");
    EXPECT_EQ(Parse(Block(Record("A=1") + "\x01\xFF\x00" + "X=1", 64)), "Record content truncated");
}

TEST(BootloaderEnvironmentLoadTest, ReadsTheFirstGoodBlock)
{
    auto nand = MemoryNandAccess::Create(8 * E, E);
    nand->SetBadBlocks({0, 1});
    nand->Poke(0, Block(Record("X=0"), E) + Block(Record("X=1"), E) +
                      Block(Record("VX_SERIAL=S1"), E));
    const BootloaderEnvironment environment = LoadBootloaderEnvironment(*nand);
    EXPECT_EQ(environment.variables.size(), 1u);
    EXPECT_EQ(environment.Get("VX_SERIAL") + environment.Get("VX_HWREV"), "S1");
    EXPECT_EQ(nand->Calls(), (std::vector<Call>{{"IsBadBlock", 0, 0}, {"IsBadBlock", E, 0},
                                                {"IsBadBlock", 2 * E, 0}, {"Read", 2 * E, E}}));
}

// The corrupt-environment line and the empty map, whatever the reason.
void ExpectEmptyEnvironment(const std::function<NandAccess::Pointer()>& open)
{
    testing::internal::CaptureStderr();
    EXPECT_TRUE(LoadBootloaderEnvironmentOrEmpty(open).variables.empty());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), CORRUPT);
}

TEST(BootloaderEnvironmentLoadTest, AnyFailureGivesTheEmptyEnvironment)
{
    // Every block bad: one query past the end, whether the device accepts it or not.
    for (const bool reject : {false, true}) {
        auto nand = MemoryNandAccess::Create(3 * E, E);
        nand->SetBadBlocks({0, 1, 2});
        nand->SetRejectOutOfRange(reject);
        ExpectEmptyEnvironment([&] { return nand; });
        EXPECT_EQ(nand->Calls(), (std::vector<Call>{{"IsBadBlock", 0, 0}, {"IsBadBlock", E, 0},
                                                    {"IsBadBlock", 2 * E, 0},
                                                    {"IsBadBlock", 3 * E, 0}}));
    }
    // A corrupt record after good ones: nothing of the block survives.
    auto corrupt = MemoryNandAccess::Create(2 * E, E);
    corrupt->PokeGood(Block(Record("A=1") + Record("B=2", '\x02'), E));
    ExpectEmptyEnvironment([&] { return corrupt; });
    ExpectEmptyEnvironment([]() -> NandAccess::Pointer { throw corvid::ErrnoException(ENOENT); });
}

TEST(BootloaderEnvironmentCacheTest, HostWithoutFlashLoadsOnceAndGetsEmptyMap)
{
    std::ifstream mtd("/proc/mtd");
    const std::string table{std::istreambuf_iterator<char>(mtd), std::istreambuf_iterator<char>()};
    if (table.find("\"flash0.nvram\"") != std::string::npos)
        GTEST_SKIP() << "this machine has a real environment partition";
    // A fresh process, so that no earlier test has filled the cache.
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(std::exit(GetBootloaderEnvironment().variables.size() +
                          GetBootloaderEnvironment().variables.size()),
                testing::ExitedWithCode(0), "^" + CORRUPT + "$");
}

TEST(BootloaderEnvironmentEncodeTest, WritesOneErasedBlockOfRecords)
{
    // The length byte counts the flags byte too: 254 text bytes at most. The
    // records and the end byte fit exactly, or not at all.
    const std::string longest = "K=" + std::string(252, 'v');
    EXPECT_EQ(EncodeBootloaderEnvironmentBlock({longest, "A="}, 263),
              Record(longest) + Record("A=") + '\0');
    EXPECT_EQ(EncodeBootloaderEnvironmentBlock({"A=1"}, 9),
              Record("A=1") + std::string("\0\xFF\xFF", 3));
    for (const auto& [text, size] : std::vector<std::pair<std::string, std::size_t>>{
             {longest + "v", 512}, {"NOEQUALS", 512}, {"A=1", 6}})
        EXPECT_THROW(EncodeBootloaderEnvironmentBlock({text}, size), std::runtime_error) << text;
}

} // namespace
