// The records in flash: the boot loader's environment block (parser, loader,
// load fallback and cache) and the device-data partition.
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "factory/records.h"
#include "hardware/bootloader_environment.h"
#include "hardware/vx_device_data.h"
#include "support/fake_context.h"
#include "support/oracles.h"

namespace {

using vxtest::EnvironmentBlock;
using vxtest::EnvironmentRecord;
using vxtest::Le32;

const std::string NO_EQUALS = "No equals sign in environment string\n";
constexpr std::size_t E = 16384;

// Standard error, then "k=v;" for each variable or the parser's error.
std::string ParseBlock(const std::string& block)
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
    const std::pair<std::string, std::string> cases[] = {
        {EnvironmentBlock({"B=2", "A=1", "K=a=b", "E=", "=v", "A=3"}, 256), "=v;A=3;B=2;E=;K=a=b;"},
        {"", ""},
        {std::string(64, '\xFF'), ""},
        {EnvironmentBlock({}, 256), ""},
        // A plain text, an empty text (length 1) and a record of length 0.
        {R("A=1") + R("JUNK") + R("") + zero_length + R("B=2") + '\0',
         NO_EQUALS + NO_EQUALS + NO_EQUALS + "A=1;B=2;"},
        // Records that fill the block end the list there.
        {R("A=1") + zero_length, NO_EQUALS + "A=1;"},
        {R("A=1") + EnvironmentRecord("B=2", '\x02') + '\0', "Unknown record type"},
        {R("A=1") + std::string(16, '\xFF'), "Unknown record type"},
        {R("A=1") + '\x01', "Record header truncated"},
        {R("A=1") + R("B=2").substr(0, 5), "Record content truncated"},
    };
    for (const auto& [block, expected] : cases)
        EXPECT_EQ(ParseBlock(block), expected) << block.size();
}

TEST(BootloaderEnvironmentLoadTest, ReadsTheFirstGoodBlockOnceOrGivesTheEmptyEnvironment)
{
    {
        FakeContext context;
        auto nand = context.AddPartition(BOOTLOADER_ENVIRONMENT_PARTITION, 8 * E, E);
        nand->bad_blocks = {0, 1};
        nand->Put(0, EnvironmentBlock({"X=0"}, E) + EnvironmentBlock({"X=1"}, E) +
                          EnvironmentBlock({"VX_SERIAL=S1"}, E));
        EXPECT_EQ(GetBootloaderEnvironment().Get("VX_SERIAL"), "S1");
        EXPECT_EQ(GetBootloaderEnvironment().variables.size(), 1u);
        EXPECT_EQ(nand->reads, (MemoryNand::Reads{{2 * E, E}}));
    }
    // Every block bad; no partition (a corrupt record: the simulated player's flash-read-error-nvram).
    for (const bool partition : {true, false}) {
        FakeContext context;
        if (partition)
            context.AddPartition(BOOTLOADER_ENVIRONMENT_PARTITION, 3 * E, E)->bad_blocks = {0, 1, 2};
        testing::internal::CaptureStderr();
        EXPECT_TRUE(GetBootloaderEnvironment().variables.empty());
        EXPECT_TRUE(GetBootloaderEnvironment().variables.empty());
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n")
            << partition;
    }
}

TEST(BootloaderEnvironmentEncodeTest, WritesOneErasedBlockOfRecords)
{
    // The length byte counts the flags byte too: 254 text bytes at most. The
    // records and the end byte fit exactly, or not at all.
    const std::string longest = "K=" + std::string(252, 'v');
    EXPECT_EQ(EncodeBootloaderEnvironmentBlock({longest, "A="}, 263),
              EnvironmentBlock({longest, "A="}, 263));
    for (const auto& [text, size] : std::vector<std::pair<std::string, std::size_t>>{
             {longest + "v", 512}, {"NOEQUALS", 512}, {"A=1", 6}})
        EXPECT_THROW(EncodeBootloaderEnvironmentBlock({text}, size), std::runtime_error) << text;
}

const std::string HEADER = "VXDD" + Le32(0x12345678);

// The walk as one text: "TAG=payload;" ("TAG[size];" if long) per chunk delivered,
// "!TAG;" per corrupt one, a thrown error's text, "|" and the standard error output.
std::string Walk(const std::string& image)
{
    std::string log;
    testing::internal::CaptureStderr();
    try {
        ParseDeviceData(
            image,
            [&](const std::string& t, const std::string& p) {
                log += t + (p.size() > 8 ? "[" + std::to_string(p.size()) + "]" : "=" + p) + ";";
            },
            [&](const std::string& t) { log += "!" + t + ";"; });
    } catch (const std::runtime_error& e) {
        log += e.what();
    }
    return log + "|" + testing::internal::GetCapturedStderr();
}

// The image read, or the error's message.
std::string Read(const NandAccess::Pointer& nand,
                 const VeltrixDeviceDataStorageNand::ChunkFilter& filter = {})
try {
    return VeltrixDeviceDataStorageNand(nand).ReadImage(filter);
} catch (const std::runtime_error& e) {
    return e.what();
}

TEST(DeviceData, ReadImage)
{
    auto nand = std::make_shared<MemoryNand>(4 * E, E);
    nand->bad_blocks = {0};
    const std::string chunks = EncodeDeviceDataChunk("ABC_", "abc") + EncodeDeviceDataChunk("EMPT", "");
    nand->Put(E, HEADER + chunks);
    EXPECT_EQ(Read(nand), HEADER + chunks);
    EXPECT_EQ(nand->reads, (MemoryNand::Reads{{E, 2048}}));

    // "SKIP" covers pages 0 to 2 and is refused unread; "KEEP" pages 2 and 3.
    nand = std::make_shared<MemoryNand>(2 * E, E);
    const std::string keep = EncodeDeviceDataChunk("KEEP", std::string(3000, 'k'));
    nand->Put(0, HEADER + EncodeDeviceDataChunk("SKIP", std::string(5000, 's')) + keep);
    EXPECT_EQ(Read(nand, [](const std::string& t) { return t == "KEEP"; }), HEADER + keep);
    EXPECT_EQ(nand->reads, (MemoryNand::Reads{{0, 2048}, {4096, 2048}, {6144, 2048}}));

    nand = std::make_shared<MemoryNand>(3 * E, E);
    EXPECT_EQ(Read(nand), ""); // erased
    nand->Put(0, "VXDE");
    EXPECT_EQ(Read(nand), "Veltrix device data is corrupt");
    nand->Put(0, HEADER + EncodeDeviceDataChunk("FULL", std::string(E - 20, 'f')));
    EXPECT_EQ(Read(nand).size(), 8 + 8 + E);
    // The end tag in the partition's last 4 bytes, where no whole header fits.
    const auto one_block = std::make_shared<MemoryNand>(E, E);
    const std::string last = HEADER + EncodeDeviceDataChunk("LAST", std::string(E - 40, 'l'));
    one_block->Put(0, last);
    EXPECT_EQ(Read(one_block), last);
    nand->bad_blocks = {0, 1, 2};
    nand->reject_out_of_range = true;
    EXPECT_EQ(Read(nand), "Veltrix device data partition is entirely bad");
}

TEST(DeviceDataDeathTest, RefusesPagesOtherThan2048Bytes)
{
    VXTEST_REQUIRE_ISOLATION();
    EXPECT_EXIT( // standard output, a buffered pipe, goes to standard error
        (dup2(2, 1), VeltrixDeviceDataStorageNand(std::make_shared<MemoryNand>(65536, 65536, 4096))),
        testing::KilledBySignal(SIGABRT), testing::Eq("LHS=4096 (0x1000)\r\nRHS=2048 (0x800)\r\n"));
    EXPECT_THAT(vxtest::ReadFile(vxtest::KernelLogFile()),
                testing::EndsWith(": nand->GetWriteSize()==BLOCK_SIZE\nASSERT Executing "
                                  "lib/hardware/vx_device_data:76:VeltrixDeviceDataStorageNand::"
                                  "VeltrixDeviceDataStorageNand(const NandAccess::Pointer&)\n"));
}

TEST(DeviceData, Parse)
{
    const std::string empty = vxtest::Sha1sumChunk("EMPT", "");
    const std::string abc = vxtest::Sha1sumChunk("ABC_", "abc");
    const std::string tampered = "BLES" + abc.substr(4, 6) + "d" + abc.substr(11);
    const std::string max = EncodeDeviceDataChunk("MAX_", std::string(0x20000 - 20, 'm'));
    const std::string too_large = "EMPT=;Veltrix device data section too large|";
    const std::pair<std::string, std::string> cases[] = {
        {"", "|"},
        {"VXDD123", "Veltrix device data is corrupt|"},
        {"VXDE" + Le32(0) + abc, "Veltrix device data is corrupt|"},
        {HEADER + empty + "HUGE" + Le32(0x80000014) + std::string(20, 'x') + abc, too_large},
        {HEADER + empty + "HUGE" + Le32(0x20001) + std::string(0x20001, 'x'), too_large},
        {HEADER + empty + "CUT_" + Le32(24) + std::string(23, 'x'),
         "EMPT=;Veltrix device data incomplete|"},
        {HEADER + empty + max + "1234567", "EMPT=;MAX_[131052];|"},
        // The 19-byte chunk holds no digest; the next one starts 27 bytes on.
        {HEADER + tampered + "TINY" + Le32(19) + std::string(19, '\xAA') + empty + abc,
         "!BLES;EMPT=;ABC_=abc;|Veltrix device data chunk failed integrity check\n"
         "0: 42 4c 45 53 17 00 00 00 61 62 64 a9 99 3e 36 47 \n"
         "16: 06 81 6a ba 3e 25 71 78 50 c2 6c 9c d0 d8 9d    \n"
         "Calculated hash\n"
         "0: cb 4c c2 8d f0 fd be 0e cf 9d 96 62 e2 94 b1 18 \n"
         "16: 09 2a 57 35                                     \n"
         "Expected hash\n"
         "0: a9 99 3e 36 47 06 81 6a ba 3e 25 71 78 50 c2 6c \n"
         "16: 9c d0 d8 9d                                     \n"
         "Veltrix device data chunk too small\n"},
    };
    for (const auto& [image, walk] : cases)
        EXPECT_EQ(Walk(image), walk) << image.substr(0, 24);
    EXPECT_THROW(EncodeDeviceDataChunk("ABC", "x"), std::invalid_argument);
    EXPECT_THROW(EncodeDeviceDataChunk("\xFF\xFF\xFF\xFF", "x"), std::invalid_argument);
    EXPECT_THROW(EncodeDeviceDataChunk("BIG_", std::string(0x20000 - 19, 'x')), std::length_error);
}

} // namespace
