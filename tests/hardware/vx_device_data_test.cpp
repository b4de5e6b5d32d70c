#include "hardware/vx_device_data.h"

#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "factory/records.h"
#include "support/fake_nand.h"
#include "support/kernel_log.h"
#include "support/oracles.h"
#include "support/programs.h"

namespace {

using Calls = std::vector<FakeNand::Call>;
using vxtest::Le32;
constexpr std::size_t ERASE = 16384;

// Digests as sha1sum prints them, not computed by the code under test.
std::string RawChunk(const std::string& tag, const std::string& payload, const std::string& hex)
{
    std::string chunk = tag + Le32(std::uint32_t(payload.size() + 20)) + payload;
    for (std::size_t i = 0; i < hex.size(); i += 2)
        chunk.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return chunk;
}
const std::string EMPTY = RawChunk("EMPT", "", "da39a3ee5e6b4b0d3255bfef95601890afd80709");
const std::string ABC = RawChunk("ABC_", "abc", "a9993e364706816aba3e25717850c26c9cd0d89d");
const std::string HEADER = "VXDD" + Le32(0x12345678);

// The walk as one text: "TAG=payload;" ("TAG[size];" if long) per chunk delivered,
// "!TAG;" per corrupt one, a thrown error's text, "|" and the standard error output.
std::string Parse(const std::string& image)
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

std::string Read(const std::shared_ptr<FakeNand>& nand,
                 const VeltrixDeviceDataStorageNand::ChunkFilter& filter = {})
{
    try {
        return VeltrixDeviceDataStorageNand(nand).ReadImage(filter);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
}

TEST(DeviceData, ReadImage)
{
    auto nand = FakeNand::Create(4 * ERASE, ERASE);
    nand->SetBadBlocks({0});
    nand->Poke(ERASE, HEADER + ABC + EMPTY);
    EXPECT_EQ(Read(nand), HEADER + ABC + EMPTY);
    EXPECT_EQ(nand->CallsOf("Read"), (Calls{{"Read", ERASE, 2048}}));

    // "SKIP" covers pages 0 to 2 and is refused unread; "KEEP" pages 2 and 3.
    nand = FakeNand::Create(2 * ERASE, ERASE);
    const std::string keep = EncodeDeviceDataChunk("KEEP", std::string(3000, 'k'));
    nand->Poke(0, HEADER + EncodeDeviceDataChunk("SKIP", std::string(5000, 's')) + keep);
    EXPECT_EQ(Read(nand, [](const std::string& t) { return t == "KEEP"; }), HEADER + keep);
    EXPECT_EQ(nand->CallsOf("Read"),
              (Calls{{"Read", 0, 2048}, {"Read", 4096, 2048}, {"Read", 6144, 2048}}));

    nand = FakeNand::Create(3 * ERASE, ERASE);
    EXPECT_EQ(Read(nand), ""); // erased
    nand->Poke(0, "VXDE");
    EXPECT_EQ(Read(nand), "Veltrix device data is corrupt");
    nand->Poke(0, HEADER + "LONG" + Le32(ERASE + 1));
    EXPECT_EQ(Read(nand), "Veltrix device data section too large");
    nand->Poke(0, HEADER + EncodeDeviceDataChunk("FULL", std::string(ERASE - 20, 'f')));
    EXPECT_EQ(Read(nand).size(), 8 + 8 + ERASE);
    nand->SetBadBlocks({0, 1, 2});
    nand->SetRejectOutOfRange(true);
    EXPECT_EQ(Read(nand), "Veltrix device data partition is entirely bad");
}

TEST(DeviceDataDeathTest, RefusesPagesOtherThan2048Bytes)
{
    VXTEST_REQUIRE_SAFE_KERNEL_LOG();
    const std::string& kmsg = vxtest::KernelLogFile();
    const std::string expr = "nand->GetWriteSize()==BLOCK_SIZE";
    const std::string where = "lib/hardware/vx_device_data:76:VeltrixDeviceDataStorageNand::"
                              "VeltrixDeviceDataStorageNand(const NandAccess::Pointer&)";
    const std::string err = "LHS=4096 (0x1000)\r\nRHS=2048 (0x800)\r\n";
    EXPECT_EXIT( // standard output, a buffered pipe, goes to standard error
        (dup2(2, 1), VeltrixDeviceDataStorageNand(FakeNand::Create(65536, 65536, 4096))),
        testing::KilledBySignal(SIGABRT),
        testing::Eq(kmsg.empty() ? err + "\r\nASSERT FAILED: " + expr + "\r\n" + where + "\r\n\r\n"
                                 : err));
    if (!kmsg.empty()) {
        EXPECT_THAT(vxtest::ReadFile(kmsg),
                    testing::EndsWith(": " + expr + "\nASSERT Executing " + where + "\n"));
    }
}

TEST(DeviceData, Parse)
{
    const std::string tampered = "BLES" + ABC.substr(4, 6) + "d" + ABC.substr(11);
    const std::string max = EncodeDeviceDataChunk("MAX_", std::string(0x20000 - 20, 'm'));
    const std::string too_large = "EMPT=;Veltrix device data section too large|";
    const std::pair<std::string, std::string> cases[] = {
        {"", "|"},
        {"VXDD123", "Veltrix device data is corrupt|"},
        {"VXDE" + Le32(0) + ABC, "Veltrix device data is corrupt|"},
        {HEADER + EMPTY + "HUGE" + Le32(0x80000014) + std::string(20, 'x') + ABC, too_large},
        {HEADER + EMPTY + "HUGE" + Le32(0x20001) + std::string(0x20001, 'x'), too_large},
        {HEADER + EMPTY + "CUT_" + Le32(24) + std::string(23, 'x'),
         "EMPT=;Veltrix device data incomplete|"},
        {HEADER + EMPTY + max + "1234567", "EMPT=;MAX_[131052];|"},
        // The 19-byte chunk holds no digest; the next one starts 27 bytes on.
        {HEADER + tampered + "TINY" + Le32(19) + std::string(19, '\xAA') + EMPTY + ABC,
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
        EXPECT_EQ(Parse(image), walk) << image.substr(0, 24);
    EXPECT_THROW(EncodeDeviceDataChunk("ABC", "x"), std::invalid_argument);
    EXPECT_THROW(EncodeDeviceDataChunk("\xFF\xFF\xFF\xFF", "x"), std::invalid_argument);
    EXPECT_THROW(EncodeDeviceDataChunk("BIG_", std::string(0x20000 - 19, 'x')), std::length_error);
}

} // namespace
