// The AVS status block read through the register mapping of a sparse
// "/dev/mem" below the scratch root (a regular file maps at the register
// space's offset like the device), and from a dump. The simulated player's
// avs-running and avs-stopped scenarios read both kinds of block live.
#include <fcntl.h>
#include <unistd.h>

#include <map>
#include <string>

#include <gtest/gtest.h>

#include "hardware/mmio.h"
#include "support/fake_context.h"
#include "support/oracles.h"

namespace {

using Status = std::map<std::string, std::string>;

// Words 2, 3, 10, 11 and 13 at the signed/unsigned, character/number and
// table boundaries.
const AvsStatusWords RUNNING = {0, 0, 0xFFFFFC18, 0xFFFFFC18, 1100, 0, 0, 0, 0, 0,
                                0x31303032, 6, 42, 0xA11600D1, 900, 45250, 1, 999999};
const Status RUNNING_STATUS = {
    {"Magic", "0xa11600d1"}, {"Status", "Enabled"},   {"T0", "-1.000C"},     {"V0", "4294966.296V"},
    {"PV0", "1.100V"},       {"MV0", "0.000V"},       {"T1", "45.250C"},     {"V1", "0.900V"},
    {"PV1", "0.001V"},       {"MV1", "999.999V"},     {"Power State", "Unknown"},
    {"Heartbeat", "42"},     {"Revision", "1.0.0.2"}};

TEST(AvsStatus, ReadThroughTheRegisterMapping)
{
    FakeContext context;
    EXPECT_EQ(vxtest::WhatOf([] { ReadAvsStatus(); }),
              context.Path("/dev/mem") + ": No such file or directory (errno 2)");
    const int fd = open(context.WriteFile("/dev/mem", "").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(ftruncate(fd, MMIO_PHYSICAL_ADDRESS + MMIO_LENGTH), 0);
    ASSERT_EQ(pwrite(fd, RUNNING.data(), sizeof RUNNING, MMIO_PHYSICAL_ADDRESS + AVS_STATUS_OFFSET),
              ssize_t(sizeof RUNNING));
    close(fd);
    EXPECT_EQ(ReadAvsStatus(), RUNNING_STATUS);
    EXPECT_EQ(vxtest::WhatOf([] { MmioBase().Read32(MMIO_LENGTH); }), "MMIO offset out of range");
}

TEST(VxtoolAvs, PrintsTheValuesOfADump)
{
    vxtest::TempDir dir;
    std::string block;
    for (const std::uint32_t word : RUNNING)
        block += vxtest::Le32(word);
    std::string expected = "0 ";
    for (const auto& [key, value] : RUNNING_STATUS)
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
