// The AVS status block read through the register mapping of a sparse
// "/dev/mem" below the scratch root (a regular file maps at the register
// space's offset like the device), and from a dump. The simulated player's
// avs-running and avs-stopped scenarios read both kinds of block live.
#include <unistd.h>

#include <map>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "hardware/mmio.h"
#include "support/fake_context.h"
#include "support/oracles.h"

namespace {

using Status = std::map<std::string, std::string>;

// A block with a value in every word that a key reports.
const AvsStatusWords RUNNING = {0, 0, 0xFFFFFC18, 0xFFFFFC18, 1100, 7, 0, 0, 0, 0,
                                0x31303032, 6, 42, 0xA11600D1, 900, 45250, 1, 999999};

TEST(AvsStatus, TheRegisterMappingsFailures)
{
    FakeContext context;
    EXPECT_EQ(vxtest::WhatOf([] { ReadAvsStatus(); }),
              context.Path("/dev/mem") + ": No such file or directory (errno 2)");
    // The block read at 0x08144000 is the simulated player's avs-running (vxtool avs) and report-avs-edges.
    ASSERT_EQ(truncate(context.WriteFile("/dev/mem", "").c_str(), MMIO_PHYSICAL_ADDRESS + MMIO_LENGTH), 0);
    EXPECT_EQ(vxtest::WhatOf([] { MmioBase().Read32(MMIO_LENGTH); }), "MMIO offset out of range");
}

// One word set in a block of zeros changes only the values it feeds.
TEST(AvsStatus, EachWordConvertedAtItsBoundaries)
{
    const Status zeros = {{"Magic", "0x00000000"}, {"Status", "Disabled"}, {"T0", "0.000C"}, {"V0", "0.000V"},
                          {"PV0", "0.000V"}, {"MV0", "0.000V"}, {"T1", "0.000C"}, {"V1", "0.000V"},
                          {"PV1", "0.000V"}, {"MV1", "0.000V"}, {"Power State", "Initializing"},
                          {"Heartbeat", "0"}, {"Revision", "0.0.0.0"}};
    const std::tuple<std::size_t, std::uint32_t, Status> cases[] = {
        {11, 1, {{"Power State", "Tracking"}}}, {11, 2, {{"Power State", "BBM Active"}}},
        {11, 3, {{"Power State", "BBCM Engaged"}}}, {11, 4, {{"Power State", "AC restored"}}},
        {11, 5, {{"Power State", "Failed to initialize"}}}, {11, 6, {{"Power State", "Unknown"}}},
        {3, 0xFFFFFC18, {{"T0", "-1.000C"}}}, {15, 0xFFFFFFFF, {{"T1", "-0.001C"}}},
        {15, 0x7FFFFFFF, {{"T1", "2147483.647C"}}}, {2, 0xFFFFFFFF, {{"V0", "4294967.295V"}}},
        {4, 0xFFFFFFFF, {{"PV0", "4294967.295V"}}}, {5, 0xFFFFFFFE, {{"MV0", "4294967.294V"}}},
        {14, 0xFFFFFFFF, {{"V1", "4294967.295V"}}}, {16, 0xFFFFFFFD, {{"PV1", "4294967.293V"}}},
        {17, 0xFFFFFFFF, {{"MV1", "4294967.295V"}}}, {12, 0xFFFFFFFF, {{"Heartbeat", "4294967295"}}},
        {10, 0x2F303132, {{"Revision", "47.48.49.50"}}}, {10, 0x302F3A41, {{"Revision", "0./.:.A"}}},
        {13, 0xA11600D1, {{"Magic", "0xa11600d1"}, {"Status", "Enabled"}}}, {13, 0xA11600D0, {{"Magic", "0xa11600d0"}}},
        {0, 0xFFFFFFFF, {}}, {1, 1, {}}, {6, 1, {}}, {9, 0xFFFFFFFF, {}}};
    for (const auto& [word, value, changed] : cases) {
        AvsStatusWords words{};
        words[word] = value;
        Status expected = zeros;
        for (const auto& [key, text] : changed)
            expected[key] = text;
        EXPECT_EQ(ConvertAvsStatus(words), expected) << "word " << word << " = " << value;
    }
}

TEST(VxtoolAvs, PrintsTheValuesOfADump)
{
    vxtest::TempDir dir;
    std::string block;
    for (const std::uint32_t word : RUNNING)
        block += vxtest::Le32(word);
    std::string expected = "0 ";
    for (const auto& [key, value] : ConvertAvsStatus(RUNNING))
        expected += key + "=" + value + "\n";
    const auto run = [](const std::vector<std::string>& args) {
        const vxtest::RunResult r = vxtest::Vxtool(args);
        return std::to_string(r.exit_status) + " " + r.out + r.err;
    };
    EXPECT_EQ(run({"avs", "--dump", dir.WriteFile("avs.bin", block)}), expected);
    EXPECT_EQ(run({"avs", "--dump", dir.WriteFile("short", "abc")}),
              "1 error: " + dir.Path() + "/short: 3 bytes, not the 72 of an AVS status block\n");
}

} // namespace
