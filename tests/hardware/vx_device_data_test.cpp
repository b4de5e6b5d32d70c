#include "hardware/vx_device_data.h"

#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/kernel_log.h"
#include "support/memory_nand.h"
#include "support/sandbox.h"

namespace {

using Call = MemoryNandAccess::Call;
using Calls = std::vector<Call>;
using Chunks = std::vector<std::pair<std::string, std::string>>;
constexpr std::size_t ERASE = 16384;

std::string Le32(std::uint32_t v)
{
    return {char(v & 0xFF), char(v >> 8 & 0xFF), char(v >> 16 & 0xFF), char(v >> 24 & 0xFF)};
}

// Chunks built byte by byte, with digests as sha1sum prints them.
std::string RawChunk(const std::string& tag, const std::string& payload,
                     const std::string& hex_digest)
{
    std::string digest;
    for (std::size_t i = 0; i < hex_digest.size(); i += 2)
        digest.push_back(static_cast<char>(std::stoi(hex_digest.substr(i, 2), nullptr, 16)));
    return tag + Le32(std::uint32_t(payload.size() + 20)) + payload + digest;
}
const std::string EMPTY_CHUNK = RawChunk("EMPT", "", "da39a3ee5e6b4b0d3255bfef95601890afd80709");
const std::string ABC_CHUNK = RawChunk("ABC_", "abc", "a9993e364706816aba3e25717850c26c9cd0d89d");
const std::string HEADER = "VXDD" + Le32(0x12345678);

struct Walk {
    Chunks chunks;
    std::vector<std::string> corrupt;
    std::string err;   // standard error
    std::string error; // what() of a thrown error
};

Walk Parse(const std::string& image)
{
    Walk walk;
    testing::internal::CaptureStderr();
    try {
        ParseDeviceData(
            image,
            [&](const std::string& t, const std::string& p) { walk.chunks.emplace_back(t, p); },
            [&](const std::string& t) { walk.corrupt.push_back(t); });
    } catch (const std::runtime_error& e) {
        walk.error = e.what();
    }
    walk.err = testing::internal::GetCapturedStderr();
    return walk;
}

std::string ReadError(const std::shared_ptr<MemoryNandAccess>& nand)
{
    try {
        VeltrixDeviceDataStorageNand(nand).ReadImage();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "(no error)";
}

TEST(DeviceDataEncoding, MatchesHandBuiltChunksAndHeader)
{
    EXPECT_EQ(EncodeDeviceDataChunk("ABC_", "abc"), ABC_CHUNK);
    EXPECT_EQ(EncodeDeviceDataChunk("EMPT", ""), EMPTY_CHUNK);
    EXPECT_EQ(EncodeDeviceDataImage({ABC_CHUNK, EMPTY_CHUNK}, 0x12345678),
              HEADER + ABC_CHUNK + EMPTY_CHUNK);
    EXPECT_THROW(EncodeDeviceDataChunk("ABC", "x"), std::invalid_argument);
    EXPECT_THROW(EncodeDeviceDataChunk("\xFF\xFF\xFF\xFF", "x"), std::invalid_argument);
    EXPECT_THROW(EncodeDeviceDataChunk("BIG_", std::string(0x20000 - 19, 'x')), std::length_error);
}

TEST(DeviceDataStorage, StartsAfterBadBlockAndReadsEachPageOnce)
{
    auto nand = MemoryNandAccess::Create(4 * ERASE, ERASE);
    nand->SetBadBlocks({0});
    nand->Poke(0, HEADER + RawChunk("BAD_", "", "")); // never read
    const std::string image = HEADER + ABC_CHUNK + EMPTY_CHUNK;
    nand->Poke(ERASE, image);

    EXPECT_EQ(VeltrixDeviceDataStorageNand(nand).ReadImage(), image);
    EXPECT_EQ(nand->Calls(),
              (Calls{{"IsBadBlock", 0, 0}, {"IsBadBlock", ERASE, 0}, {"Read", ERASE, 2048}}));
    EXPECT_EQ(Parse(image).chunks, (Chunks{{"ABC_", "abc"}, {"EMPT", ""}}));
}

TEST(DeviceDataStorage, FilteredChunksAreSteppedOverWithoutReadingThem)
{
    // "SKIP" covers offsets 8..5035 (pages 0 to 2), "KEEP" 5036..8063 (pages 2
    // and 3); the end marker at 8064 lies in page 3.
    auto nand = MemoryNandAccess::Create(2 * ERASE, ERASE);
    const std::string keep = EncodeDeviceDataChunk("KEEP", std::string(3000, 'k'));
    nand->Poke(
        0, EncodeDeviceDataImage({EncodeDeviceDataChunk("SKIP", std::string(5000, 's')), keep}));

    std::vector<std::string> asked;
    const std::string image =
        VeltrixDeviceDataStorageNand(nand).ReadImage([&](const std::string& tag) {
            asked.push_back(tag);
            return tag == "KEEP";
        });
    EXPECT_EQ(image, EncodeDeviceDataImage({keep}));
    EXPECT_EQ(asked, (std::vector<std::string>{"SKIP", "KEEP"}));
    EXPECT_EQ(nand->CallsOf("Read"),
              (Calls{{"Read", 0, 2048}, {"Read", 4096, 2048}, {"Read", 6144, 2048}}));
}

TEST(DeviceDataStorage, PartitionStates)
{
    auto nand = MemoryNandAccess::Create(3 * ERASE, ERASE);
    EXPECT_EQ(VeltrixDeviceDataStorageNand(nand).ReadImage(), "") << "erased";

    nand->Poke(0, "VXDE");
    EXPECT_EQ(ReadError(nand), "Veltrix device data is corrupt");

    nand->Poke(0, HEADER + "LONG" + Le32(ERASE + 1));
    EXPECT_EQ(ReadError(nand), "Veltrix device data section too large");

    const std::string full =
        EncodeDeviceDataImage({EncodeDeviceDataChunk("FULL", std::string(ERASE - 20, 'f'))});
    nand->Poke(0, full);
    EXPECT_EQ(VeltrixDeviceDataStorageNand(nand).ReadImage(), full)
        << "chunk as long as an erase block";

    nand->SetBadBlocks({0, 1, 2});
    nand->ClearCalls();
    EXPECT_EQ(ReadError(nand), "Veltrix device data partition is entirely bad");
    EXPECT_EQ(
        nand->Calls(),
        (Calls{{"IsBadBlock", 0, 0}, {"IsBadBlock", ERASE, 0}, {"IsBadBlock", 2 * ERASE, 0}}));
}

TEST(DeviceDataStorageDeathTest, RefusesPagesOtherThan2048Bytes)
{
    VXTEST_REQUIRE_SAFE_KERNEL_LOG();
    const std::string& kmsg = vxtest::KernelLogFile();
    const std::size_t before = kmsg.empty() ? 0 : vxtest::ReadFile(kmsg).size();
    const std::string where =
        "lib/hardware/vx_device_data:76:"
        "VeltrixDeviceDataStorageNand::VeltrixDeviceDataStorageNand(const NandAccess::Pointer&)";
    // Without a kernel log the report follows the values on standard error.
    const std::string err =
        "LHS=4096 (0x1000)\r\nRHS=2048 (0x800)\r\n" +
        (kmsg.empty()
             ? "\r\nASSERT FAILED: nand->GetWriteSize()==BLOCK_SIZE\r\n" + where + "\r\n\r\n"
             : "");
    EXPECT_EXIT(
        {
            std::setvbuf(stdout, nullptr, _IONBF, 0); // the values go to standard output
            dup2(2, 1);
            VeltrixDeviceDataStorageNand storage(MemoryNandAccess::Create(4 * 65536, 65536, 4096));
        },
        testing::KilledBySignal(SIGABRT), testing::Eq(err));
    if (!kmsg.empty()) {
        const std::string log = vxtest::ReadFile(kmsg).substr(before);
        EXPECT_THAT(log, testing::StartsWith("<2>User space assert from process "));
        EXPECT_THAT(log, testing::EndsWith(": nand->GetWriteSize()==BLOCK_SIZE\nASSERT Executing " +
                                           where + "\n"));
    }
}

TEST(DeviceDataParse, TooSmallChunkIsSkippedAndTheWalkGoesOn)
{
    // A length of 19 leaves no room for the digest; the next chunk is 27 bytes on.
    const Walk walk =
        Parse(HEADER + "TINY" + Le32(19) + std::string(19, '\xAA') + EMPTY_CHUNK + ABC_CHUNK);
    EXPECT_EQ(walk.err, "Veltrix device data chunk too small\n");
    EXPECT_EQ(walk.chunks, (Chunks{{"EMPT", ""}, {"ABC_", "abc"}}));
    EXPECT_EQ(walk.corrupt.size() + walk.error.size(), 0u);
}

TEST(DeviceDataParse, CorruptChunkIsDumpedAndReported)
{
    std::string tampered = "BLES" + ABC_CHUNK.substr(4);
    tampered[10] = 'd';
    const Walk walk = Parse(HEADER + tampered + ABC_CHUNK);
    EXPECT_EQ(walk.err, "Veltrix device data chunk failed integrity check\n"
                        "0: 42 4c 45 53 17 00 00 00 61 62 64 a9 99 3e 36 47 \n"
                        "16: 06 81 6a ba 3e 25 71 78 50 c2 6c 9c d0 d8 9d    \n"
                        "Calculated hash\n"
                        "0: cb 4c c2 8d f0 fd be 0e cf 9d 96 62 e2 94 b1 18 \n"
                        "16: 09 2a 57 35                                     \n"
                        "Expected hash\n"
                        "0: a9 99 3e 36 47 06 81 6a ba 3e 25 71 78 50 c2 6c \n"
                        "16: 9c d0 d8 9d                                     \n");
    EXPECT_EQ(walk.corrupt, std::vector<std::string>{"BLES"});
    EXPECT_EQ(walk.chunks, (Chunks{{"ABC_", "abc"}}));
}

TEST(DeviceDataParse, StructuralErrorsEndTheWalkAfterEarlierChunks)
{
    const std::pair<std::string, std::string> cases[] = {
        {"HUGE" + Le32(0x80000014) + std::string(20, 'x') + ABC_CHUNK,
         "Veltrix device data section too large"},
        {"HUGE" + Le32(0x20001) + std::string(0x20001, 'x') + ABC_CHUNK,
         "Veltrix device data section too large"},
        {"CUT_" + Le32(24) + std::string(23, 'x'), "Veltrix device data incomplete"},
    };
    for (const auto& [bad, error] : cases) {
        const Walk walk = Parse(HEADER + EMPTY_CHUNK + bad);
        EXPECT_EQ(walk.error, error);
        EXPECT_EQ(walk.chunks, (Chunks{{"EMPT", ""}}));
    }
    // The largest length accepted; trailing bytes too few for a chunk header.
    const Walk walk =
        Parse(HEADER + EncodeDeviceDataChunk("MAX_", std::string(0x20000 - 20, 'm')) + "1234567");
    EXPECT_EQ(walk.error, "");
    ASSERT_EQ(walk.chunks.size(), 1u);
    EXPECT_EQ(walk.chunks[0].second.size(), 0x20000u - 20);
}

TEST(DeviceDataParse, ImageHeader)
{
    EXPECT_EQ(Parse("").error, "");
    EXPECT_EQ(Parse("VXDD123").error, "Veltrix device data is corrupt");
    EXPECT_EQ(Parse("VXDE" + Le32(0) + ABC_CHUNK).error, "Veltrix device data is corrupt");
    const Walk short_image = Parse(HEADER + std::string(7, '\x01'));
    EXPECT_EQ(short_image.error + short_image.err, "");
    EXPECT_TRUE(short_image.chunks.empty());
}

} // namespace
