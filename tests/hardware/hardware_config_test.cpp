// The hardware configuration of units made of openssl-signed records: the
// bitfield, the messages, and the SSD check.
#include <cctype>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "hardware/hardware_config.h"
#include "support/fake_context.h"
#include "support/oracles.h"

namespace {

using vxtest::OpensslBlessingPayload;
using vxtest::Sha1sumChunk;
using Variables = std::map<std::string, std::string>;

const std::string ID = "5ec1d0000000c0de";
const std::string SERIAL = "SIM0042";
constexpr std::size_t E = 0x20000;

struct Outcome {
    std::uint64_t bitfield;
    bool srb_valid, configured;
    std::string model, err;
};

// A unit whose variables (all of them signed ones) are signed by openssl with
// srb_key (none when empty) for ID, on a board with secure_id; chunks are its
// device data (no partition at all when devid is false).
Outcome Configure(Variables variables, const std::string& srb_key, const std::string& secure_id = ID,
                  const std::vector<std::string>& chunks = {}, bool devid = true)
{
    FakeContext context;
    if (!srb_key.empty()) {
        std::string message;
        for (const auto& [name, value] : variables)
            message += name + "\n" + value + "\n";
        const std::string text = vxtest::OpensslSrbSignature(srb_key, ID, message);
        variables["VX_SIGNATURE_0"] = text.substr(0, 200);
        variables["VX_SIGNATURE_1"] = text.substr(200);
    }
    std::vector<std::string> texts;
    for (const auto& [name, value] : variables)
        texts.push_back(name + "=" + value);
    context.AddPartition("flash0.nvram", 4 * E, E)->Put(0, vxtest::EnvironmentBlock(texts, E));
    context.WriteFile("/proc/boardid", "ID: 0x42\nSecure-keys: 1\nSecure-ID: " + secure_id + "\n");
    std::string image = chunks.empty() ? "" : "VXDD" + vxtest::Le32(0);
    for (const std::string& chunk : chunks)
        image += chunk;
    if (devid)
        context.AddPartition("flash0.devid", 4 * E, E)->Put(0, image);
    testing::internal::CaptureStderr();
    const HardwareConfig config;
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(config.GetSecureId() == secure_id && config.GetSecureKeys());
    return {config.GetHardwareBitfield(), config.IsSrbValid(), config.IsConfigured(), config.GetModelName(), err};
}

TEST(HardwareConfig, WithoutAnSrbTheUnitHasNoCapabilities)
{
    const Outcome o = Configure({{"VX_FORMAT", "01"}, {"VX_HWFLAGS", "0x113"}}, "srb-1");
    EXPECT_EQ(o.err, "SRB not valid. Please run manufacturing test.\n");
    EXPECT_EQ(o.bitfield, 0u);
    EXPECT_FALSE(o.srb_valid || o.configured);
}

TEST(HardwareConfig, AnSrbThatDoesNotVerifyLosesThePrivilegedBits)
{
    const Outcome unsigned_unit =
        Configure({{"VX_FORMAT", "1"}, {"VX_HWFLAGS", "0x30000113"}, {"VX_OEM_MODEL", "M"}}, "");
    EXPECT_EQ(unsigned_unit.err, "SRB is not signed. Modifying hardware config: SRB signature not found\n");
    EXPECT_EQ(unsigned_unit.bitfield, 0x80100000113u);
    EXPECT_EQ(unsigned_unit.model, "M");
    EXPECT_TRUE(unsigned_unit.configured && !unsigned_unit.srb_valid);

    // All ones on another board; without privileged bits nothing is said.
    const Outcome foreign = Configure({{"VX_FORMAT", "1"}}, "srb-2", "5ec1d0000000c0df");
    EXPECT_EQ(foreign.err, "SRB is not signed. Modifying hardware config: SRB signature verification failed\n");
    EXPECT_EQ(foreign.bitfield, 0xFFFFFBFFCFFFFFFFu);
    EXPECT_EQ(Configure({{"VX_FORMAT", "1"}, {"VX_HWFLAGS", "0x113"}}, "blessing-1").err, "");
}

TEST(HardwareConfig, ValidSrbZeroFlagsNorvaAndAMissingPartition)
{
    const Outcome all = Configure({{"VX_FORMAT", "1"}, {"VX_SERIAL", SERIAL}}, "srb-1");
    EXPECT_EQ(all.err, "");
    EXPECT_EQ(all.bitfield, ~0ULL);
    EXPECT_TRUE(all.srb_valid && all.configured);

    const Outcome norva = Configure({{"VX_FORMAT", "1"}, {"VX_HWFLAGS", "0"}, {"VX_OEM_ID", "Norva"}}, "srb-2",
                                    ID, {}, false);
    EXPECT_EQ(norva.err, "Hardware configuration bitfield is zero. Please reprogram SRB\n"
                         "Failed to enumerate blessings: Failed to find NAND partition named 'flash0.devid'\n");
    EXPECT_EQ(norva.bitfield, 0x84100000000u);
}

TEST(HardwareConfig, BlessingsOfOneRecordAppliedInOrderPastAnUnknownName)
{
    VXTEST_REQUIRE_TEST_KEYS();
    const std::vector<std::string> chunks = {
        Sha1sumChunk("BLES", OpensslBlessingPayload("blessing-1", "BLES", "DISABLE-HDMI:warp-drive:eAc3:vxear", "",
                                                    ID, SERIAL)),
        Sha1sumChunk("BOON", OpensslBlessingPayload("blessing-2", "BOON", "enable-dws", "p", "", ""))};
    const Outcome o = Configure({{"VX_FORMAT", "1"}, {"VX_HWFLAGS", "0x8000000010111"}, {"VX_SERIAL", SERIAL}},
                                "srb-1", ID, chunks);
    EXPECT_EQ(o.err, "HardwareConfig: Unknown blessing: 'warp-drive'\n"
                     "Hardware bitfield: before: 0x8080100010111 after: 0x28088130010110 "
                     "blessings enumeration\n");
    EXPECT_EQ(o.bitfield, 0x28088130010110u);
}

// Every blessing of the documented capabilities, each on a fresh
// configuration: one without capabilities (as written; a bit set too many
// shows) and one with all but the privileged bits (in mixed case; a bit
// cleared too many shows).
TEST(HardwareConfig, EveryBlessingNameSetsOrClearsExactlyItsBits)
{
    // The blessings of the documented table, then names that are none.
    std::vector<std::tuple<std::string, std::uint64_t, std::uint64_t>> names;
    for (const vxtest::CapabilityOracle& row : vxtest::CAPABILITY_ORACLE)
        if (row.blessing)
            names.emplace_back(row.blessing, row.set, row.clear);
    for (const char* unknown : {"eac", "vxear ", "disable_hdmi"})
        names.emplace_back(unknown, 0, 0);
    names.emplace_back(std::string("eac3\0", 5), 0, 0); // not "eac3" as a C string reads it
    for (const bool full : {false, true}) {
        FakeContext context; // no /proc/boardid: no Secure ID, no SRB
        context.AddPartition("flash0.nvram", 4 * E, E)
            ->Put(0, vxtest::EnvironmentBlock({full ? "VX_FORMAT=1" : "VX_FORMAT=0"}, E));
        const std::uint64_t before = full ? ~HW_PRIVILEGED | HW_BLESSINGS_READ : 0;
        for (auto [name, set, clear] : names) {
            for (std::size_t i = 0; full && i < name.size(); i += 2)
                name[i] = char(std::toupper(name[i]));
            testing::internal::CaptureStderr();
            HardwareConfig config;
            testing::internal::GetCapturedStderr();
            ASSERT_EQ(config.GetHardwareBitfield(), before);
            testing::internal::CaptureStderr();
            config.ApplyBlessing(name);
            EXPECT_EQ(testing::internal::GetCapturedStderr(),
                      set || clear ? "" : "HardwareConfig: Unknown blessing: '" + name + "'\n");
            EXPECT_EQ(config.GetHardwareBitfield(), (before | set) & ~clear) << name;
        }
    }
}

TEST(HardwareConfig, SsdCheckReadsGpioLine64)
{
    FakeContext context;
    context.WriteFile("/proc/boardid", "Secure-ID: x\n");
    testing::internal::CaptureStderr(); // no environment: the configuration reports it
    HardwareConfig config;
    testing::internal::GetCapturedStderr();
    context.WriteFile("/sys/class/gpio/gpio64/direction", "in\n");
    context.WriteFile("/sys/class/gpio/gpio64/value", "0\n");
    EXPECT_EQ(config.CheckSsd(), "Incompatible SSD detected. This player only supports NVMe/PCIe SSDs.");
    context.WriteFile("/sys/class/gpio/gpio64/value", "1\n");
    EXPECT_EQ(config.CheckSsd(), "");
}

} // namespace
