// The hardware configuration of units made of openssl-signed records: the
// bitfield and the messages (the SSD check is the simulated player's
// ssd-unsupported and healthy).
#include <cctype>
#include <map>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "hardware/hardware_config.h"
#include "support/fake_context.h"
#include "support/oracles.h"

namespace {

using Variables = std::map<std::string, std::string>;

const std::string ID = "5ec1d0000000c0de";
constexpr std::size_t E = 0x20000;

struct Outcome {
    std::uint64_t bitfield;
    bool srb_valid, configured;
    std::string model, err;
    bool operator==(const Outcome&) const = default;
    friend void PrintTo(const Outcome& o, std::ostream* out)
    {
        *out << std::hex << o.bitfield << " " << o.srb_valid << o.configured << " '" << o.model << "' '" << o.err << "'";
    }
};

// A unit whose variables (all of them signed ones) are signed by openssl with
// srb_key (none when empty) for ID, on a board with secure_id, with erased
// device data (no partition at all when devid is false).
Outcome Configure(Variables variables, const std::string& srb_key, const std::string& secure_id, bool devid)
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
    if (devid)
        context.AddPartition("flash0.devid", 4 * E, E);
    testing::internal::CaptureStderr();
    const HardwareConfig config;
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(config.GetSecureId() == secure_id && config.GetSecureKeys());
    return {config.GetHardwareBitfield(), config.IsSrbValid(), config.IsConfigured(), config.GetModelName(), err};
}

TEST(HardwareConfig, TheSrbDecidesTheBitfieldWithTheOemRulesAndSaysWhy)
{
    const std::string not_signed = "SRB is not signed. Modifying hardware config: SRB signature ";
    const struct {
        Variables variables;
        const char* key; // that signs them, none when empty
        std::string secure_id;
        bool devid;
        Outcome expected;
    } cases[] = {
        // Without an SRB the unit has no capabilities, signed or not.
        {{{"VX_FORMAT", "01"}, {"VX_HWFLAGS", "0x113"}}, "srb-1", ID, true,
         {0, false, false, "", "SRB not valid. Please run manufacturing test.\n"}},
        // An SRB that does not verify loses the privileged bits, and says so only when it had any.
        {{{"VX_FORMAT", "1"}, {"VX_HWFLAGS", "0x30000113"}, {"VX_OEM_MODEL", "M"}}, "", ID, true,
         {0x80100000113, false, true, "M", not_signed + "not found\n"}},
        {{{"VX_FORMAT", "1"}}, "srb-2", "5ec1d0000000c0df", true, // all ones, on another board
         {0xFFFFFBFFCFFFFFFF, false, true, "", not_signed + "verification failed\n"}},
        {{{"VX_FORMAT", "1"}, {"VX_HWFLAGS", "0x113"}}, "blessing-1", ID, true, {0x80100000113, false, true, "", ""}},
        // A valid one with zero flags, Norva, and no device data (without flags: healthy).
        {{{"VX_FORMAT", "1"}, {"VX_HWFLAGS", "0"}, {"VX_OEM_ID", "Norva"}}, "srb-2", ID, false,
         {0x84100000000, true, true, "",
          "Hardware configuration bitfield is zero. Please reprogram SRB\n"
          "Failed to enumerate blessings: Failed to find NAND partition named 'flash0.devid'\n"}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Configure(c.variables, c.key, c.secure_id, c.devid), c.expected) << c.key;
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

} // namespace
