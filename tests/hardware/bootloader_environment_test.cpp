// The environment block: parser, loader, load fallback and cache.
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "factory/records.h"
#include "hardware/bootloader_environment.h"
#include "support/fake_context.h"
#include "support/oracles.h"

namespace {

using vxtest::EnvironmentRecord;

const std::string CORRUPT = "BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n";
const std::string NO_EQUALS = "No equals sign in environment string\n";
constexpr std::size_t E = 4096;

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
    const auto R = [](const char* text) { return EnvironmentRecord(text); };
    const std::string zero_length("\x01\x00", 2);
    EXPECT_EQ(Parse(Block(R("B=2") + R("A=1") + R("K=a=b") + R("E=") + R("=v") + R("A=3"))),
              "=v;A=3;B=2;E=;K=a=b;");
    for (const std::string& empty : {std::string(), std::string(64, '\xFF'), Block("")})
        EXPECT_EQ(Parse(empty), "");
    // A plain text, an empty text (length 1) and a record of length 0.
    EXPECT_EQ(Parse(Block(R("A=1") + R("JUNK") + R("") + zero_length + R("B=2"))),
              NO_EQUALS + NO_EQUALS + NO_EQUALS + "A=1;B=2;");
    // Records that fill the block end the list there.
    EXPECT_EQ(Parse(R("A=1") + zero_length), NO_EQUALS + "A=1;");
    EXPECT_EQ(Parse(Block(R("A=1") + EnvironmentRecord("B=2", '\x02'))), "Unknown record type");
    EXPECT_EQ(Parse(R("A=1") + std::string(16, '\xFF')), "Unknown record type");
    EXPECT_EQ(Parse(R("A=1") + '\x01'), "Record header truncated");
    EXPECT_EQ(Parse(R("A=1") + R("B=2").substr(0, 5)), "Record content truncated");
}

TEST(BootloaderEnvironmentLoadTest, ReadsTheFirstGoodBlockOnce)
{
    FakeContext context;
    auto nand = context.AddPartition(BOOTLOADER_ENVIRONMENT_PARTITION, 8 * E, E);
    nand->SetBadBlocks({0, 1});
    nand->Poke(0, Block(EnvironmentRecord("X=0"), E) + Block(EnvironmentRecord("X=1"), E) +
                      vxtest::EnvironmentBlock({"VX_SERIAL=S1"}, E));
    EXPECT_EQ(GetBootloaderEnvironment().Get("VX_SERIAL"), "S1");
    EXPECT_EQ(GetBootloaderEnvironment().variables.size(), 1u);
    EXPECT_EQ(nand->CallsOf("Read"), (std::vector<FakeNand::Call>{{"Read", 2 * E, E}}));
}

// The corrupt-environment line and the empty map, once, whatever the reason.
void ExpectEmptyEnvironment(const std::function<void(FakeContext&)>& setup)
{
    FakeContext context;
    setup(context);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(GetBootloaderEnvironment().variables.empty());
    EXPECT_TRUE(GetBootloaderEnvironment().variables.empty());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), CORRUPT);
}

TEST(BootloaderEnvironmentLoadTest, AnyFailureGivesTheEmptyEnvironment)
{
    // Every block bad: one query past the end, whether the device accepts it or not.
    for (const bool reject : {false, true}) {
        ExpectEmptyEnvironment([&](FakeContext& context) {
            auto nand = context.AddPartition(BOOTLOADER_ENVIRONMENT_PARTITION, 3 * E, E);
            nand->SetBadBlocks({0, 1, 2});
            nand->SetRejectOutOfRange(reject);
        });
    }
    // A corrupt record after good ones: nothing of the block survives.
    ExpectEmptyEnvironment([](FakeContext& context) {
        context.AddPartition(BOOTLOADER_ENVIRONMENT_PARTITION, 2 * E, E)
            ->PokeGood(Block(EnvironmentRecord("A=1") + EnvironmentRecord("B=2", '\x02'), E));
    });
    ExpectEmptyEnvironment([](FakeContext&) {}); // no partition
}

TEST(BootloaderEnvironmentEncodeTest, WritesOneErasedBlockOfRecords)
{
    // The length byte counts the flags byte too: 254 text bytes at most. The
    // records and the end byte fit exactly, or not at all.
    const std::string longest = "K=" + std::string(252, 'v');
    EXPECT_EQ(EncodeBootloaderEnvironmentBlock({longest, "A="}, 263),
              vxtest::EnvironmentBlock({longest, "A="}, 263));
    for (const auto& [text, size] : std::vector<std::pair<std::string, std::size_t>>{
             {longest + "v", 512}, {"NOEQUALS", 512}, {"A=1", 6}})
        EXPECT_THROW(EncodeBootloaderEnvironmentBlock({text}, size), std::runtime_error) << text;
}

} // namespace
