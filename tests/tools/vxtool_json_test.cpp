// vxtool's reading commands with --json on a returned player's data: one
// object that validates against the command's schema, the same exit status
// as the text form, the library's messages as warnings, failures as "error".
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "saved_player.h"
#include "support/json_schema.h"

namespace {

using Args = std::vector<std::string>;

Args operator+(Args args, const Args& more)
{
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

TEST(VxtoolJson, EveryReadingCommandAnswersWhatItsTextSays)
{
    VXTEST_REQUIRE_TEST_KEYS();
    SavedPlayer player("1", "7", BOARD + "Secure-ID: " + SECURE_ID + "\n", BlessedDeviceData());
    const Args& all = player.args;
    const std::string boardid = player.dir.Path() + "/boardid";
    const std::string erased = player.dir.WriteFile("erased", std::string(2 * E, '\xFF'));
    std::string avs;
    for (const std::uint32_t w : {0u, 0u, 950u, 0xFFFFF830u, 1000u, 7u, 0u, 0u, 0u, 0u, 0x01020304u, 1u, 17u,
                                  0xA11600D1u})
        avs += vxtest::Le32(w);
    const std::string dump = player.dir.WriteFile("avs", avs.append(72 - avs.size(), '\0'));
    const std::string hwconfig_bits = R"("hardware_bitfield": 9350949109777, "hardware_bitfield_hex": "0x88130000011",
        "capabilities": ["hdmi", "ethernet", "eac3", "srb-configured", "vxear", "blessings-applied"])";

    const struct {
        Args args;
        int status;
        std::string answer; // without "warnings"
        std::string warnings = "[]";
    } cases[] = {
        {Args{"env"} + Pick(all, {"--env-"}), 0,
         R"({"block": "records", "block_offset": 0, "variables": {"VX_FORMAT": "1", "VX_HWFLAGS": "0x11",
             "VX_HWREV": "7", "VX_OEM_MODEL": "Wall", "VX_SERIAL": "PX9"}})"},
        {Args{"env", "VX_SERIAL", "NOPE"} + Pick(all, {"--env-"}), 3,
         R"({"block": "records", "block_offset": 0, "variables": {"VX_SERIAL": "PX9"}, "missing": ["NOPE"]})"},
        {Args{"env", "--env-image", erased, "--env-erase-size", "16384"}, 3,
         R"({"block": "erased", "block_offset": 0, "variables": {}})"},
        {Args{"env", "--env-image", erased}, 2, R"({"error": "--env-image needs --env-erase-size"})"},
        {Args{"env", "--env-image", "/nonexistent", "--env-erase-size", "16384"}, 1,
         "{\"error\": \"/nonexistent: No such file or directory (errno 2)\"}"},
        {Args{"srb"} + Pick(all, {"--env-", "--boardid"}), 1,
         R"({"signature_valid": false, "srb_present": true, "reason": "SRB signature not found",
             "secure_id": ")" + SECURE_ID + R"(", "secure_id_source": ")" + boardid + R"("})"},
        {Args{"devdata"} + Pick(all, {"--devdata-"}), 0,
         R"({"erased": false, "header_word": 0, "chunks": [{"tag": "BLES", "payload_length": 270, "status": "ok"}]})"},
        {Args{"blessings", "--serial", "PX9"} + Pick(all, {"--devdata-", "--boardid"}), 0,
         R"({"secure_id": ")" + SECURE_ID + R"(", "serial": "PX9", "records": 1,
             "granted": [{"name": "eac3", "parameter": ""}, {"name": "vxear", "parameter": ""}]})"},
        {Args{"blessings", "--serial", "PX8"} + Pick(all, {"--devdata-", "--boardid"}), 1,
         R"({"secure_id": ")" + SECURE_ID + R"(", "serial": "PX8", "records": 1, "granted": [],
             "error": "none of the 1 blessing records grants anything to this unit"})",
         R"(["Exception while checking blessings: Blessing not correctly signed"])"},
        {Args{"hwconfig"} + Pick(all, {"--env-", "--devdata-", "--boardid"}), 0,
         R"({"board_id": 66, "family": "", "bolt_version": "", "bootloader_version": "bolt-v3.9.1",
             "secure_keys": false, "secure_boot": false, "secure_id": ")" + SECURE_ID + R"(", "soc": "",
             "oem_id": "", "oem_model": "Wall", "srb_valid": false, "configured": true, )" + hwconfig_bits + "}",
         R"(["Hardware bitfield: before: 0x80100000011 after: 0x88130000011 blessings enumeration"])"},
        {Args{"versions"} + Pick(all, {"--bolt-", "--rescue-", "--env-", "--devdata-", "--boardid", "--version"}), 0,
         R"({"bootloader": "v3.9.1", "first_images": "7.1.0", "rescue_kernel": "5.0.2",
             "operating_system": "12.4.0", "serial": "PX9"})",
         R"(["Hardware bitfield: before: 0x80100000011 after: 0x88130000011 blessings enumeration"])"},
        {{"avs", "--dump", dump}, 0,
         R"({"revision": "1.2.3.4", "v0": 0.95, "t0": -2.0, "pv0": 1.0, "mv0": 0.007, "v1": 0.0, "t1": 0.0,
             "pv1": 0.0, "mv1": 0.0, "power_state": "Tracking", "heartbeat": 17, "magic": 2702573777,
             "status": "Enabled"})"},
        {{"avs", "--dump", boardid}, 1,
         R"({"error": ")" + boardid + R"(: 69 bytes, not the 72 of an AVS status block"})"},
    };
    for (const auto& c : cases) {
        const vxtest::RunResult r = vxtest::Vxtool(c.args + Args{"--json"});
        EXPECT_EQ(r.exit_status, c.status) << r.out;
        EXPECT_EQ(r.exit_status, vxtest::Vxtool(c.args).exit_status) << c.args[0];
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(vxtest::JsonSchemaErrors(c.args[0], r.out), "") << r.out;
        nlohmann::json expected = nlohmann::json::parse(c.answer);
        expected["warnings"] = nlohmann::json::parse(c.warnings);
        EXPECT_EQ(nlohmann::json::parse(r.out), expected) << c.args[0];
    }
}

} // namespace
