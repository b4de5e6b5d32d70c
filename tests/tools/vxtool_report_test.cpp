// vxtool on what was saved from a returned player. report: the check's own
// messages and status, the banner on standard output instead of /etc/issue,
// and the blink code instead of the LED. Every reading command with --json:
// one object that validates against the command's schema, the same exit
// status as the text form, the library's messages as warnings, failures as
// "error".
#include <filesystem>
#include <functional>
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

const std::string VERSIONS = "<6>VELTRIX boot=v3.9.1 firstimages=7.1.0 rescue=5.0.2 mission=12.4.0 model=";

// Each verdict that the report can show, in its text form and as its JSON
// answer (valid against the schema), with the same exit status: the
// healthy unit, a warning that does not stop the pass, and each failure row.
TEST(VxtoolReport, EveryVerdictInTextAndAsJson)
{
    VXTEST_REQUIRE_TEST_KEYS();
    const auto write = [](const char* file, const std::string& text) {
        return [=](SavedPlayer& p) { p.dir.WriteFile(file, text); };
    };
    const auto remove = [](const char* path) {
        return [=](SavedPlayer& p) { std::filesystem::remove(p.dir.Path() + "/" + path); };
    };
    const struct {
        const char* format;
        std::string devdata;
        std::function<void(SavedPlayer&)> change;
        int status;
        std::string err, out; // the text form; "@" in err stands for the scratch directory
    } rows[] = {
        {"1", BlessedDeviceData(),
         write("boardid", BOARD + "Secure-keys: 0x2\nSecure-boot: 7\nSecure-ID: " + SECURE_ID + "\n"), 0,
         ENUMERATED + "\n" + VERSIONS + "Wall REVG serial=PX9 hw=11 sk=1 sb=1 bl=eac3,vxear\n" + AVS,
         "Veltrix Wall PX9 v12.4.0\r\n\n"},
        {"1 ", "", write("sys/class/gpio/gpio64/value", "0\n"), 0,
         "SRB not valid. Please run manufacturing test.\n<3>Incompatible SSD detected. This player only supports "
         "NVMe/PCIe SSDs.SRB IS NOT SET. RUN MANUFACTURING TEST." +
             VERSIONS + " NO-SRB serial= hw=11 sk=0 sb=0\n" + AVS,
         "Veltrix   v12.4.0\r\n\n"},
        {"1", "", [](SavedPlayer& p) { p.args.back() = "ff:ff:ff:ff:ff:ff"; }, 1,
         "ERROR: Ethernet interface has invalid MAC address\n", "blink code 7\n"},
        {"1", "", remove("sys/class/net/eth0"), 1, "ERROR: Ethernet device not found\n", "blink code 7\n"},
        {"1", "", write("meminfo", "MemTotal: 204799 kB\n"), 1,
         "Insufficient memory detected: 204799KB.\nERROR: Insufficient memory detected\n", "blink code 2\n"},
        {"1", "", write("meminfo", "MemFree: 1 kB\n"), 1, "ERROR: Can't determine memory configuration\n",
         "blink code 2\n"},
        {"1", "", remove("version"), 2, "ERROR: @/version: No such file or directory (errno 2)\n", "blink code 2\n"},
        {"1", "VXDX", nullptr, 2,
         "Failed to enumerate blessings: Veltrix device data is corrupt\nERROR: Veltrix device data is corrupt\n",
         "blink code 2\n"},
        {"1", "", remove("mem"), 2,
         VERSIONS + "Wall REVG serial=PX9 hw=11 sk=0 sb=0\nERROR: @/mem: No such file or directory (errno 2)\n",
         "blink code 2\n"},
    };
    for (const auto& row : rows) {
        SavedPlayer player(row.format, "7", BOARD + "Secure-ID: " + SECURE_ID + "\n", row.devdata);
        if (row.change)
            row.change(player);
        std::string err = row.err;
        for (std::size_t at; (at = err.find('@')) != std::string::npos;)
            err.replace(at, 1, player.dir.Path());
        const vxtest::RunResult text = vxtest::Vxtool(player.args);
        EXPECT_EQ(std::to_string(text.exit_status) + text.err + text.out, std::to_string(row.status) + err + row.out);

        player.args.push_back("--json");
        const vxtest::RunResult json = vxtest::Vxtool(player.args);
        EXPECT_EQ(json.exit_status, row.status) << json.out;
        EXPECT_EQ(vxtest::JsonSchemaErrors("report", json.out), "") << json.out;
        const auto answer = nlohmann::json::parse(json.out);
        // The verdict's error: the text of the ERROR line, the last.
        const std::size_t error = err.find("ERROR: ") + 7;
        const nlohmann::json verdict = {
            {"exit_status", row.status},
            {"blink_code", row.status ? nlohmann::json(row.out[11] - '0') : nullptr},
            {"error", row.status ? nlohmann::json(err.substr(error, err.size() - error - 1)) : nullptr}};
        EXPECT_EQ(answer["verdict"], verdict) << json.out;
        EXPECT_EQ(answer["summary"].is_null(), text.err.find("<6>VELTRIX") == std::string::npos);
        EXPECT_EQ(answer["banner"], row.status ? nlohmann::json(nullptr) : nlohmann::json(row.out));
        // The healthy unit: every field of the summary line, the AVS values.
        // What the check prints beside the summary, the AVS line and the
        // ERROR line are the warnings, one per message.
        if (&row == rows) {
            EXPECT_EQ(answer["summary"], nlohmann::json::parse(R"({"bootloader": "v3.9.1", "first_images": "7.1.0",
                "rescue_kernel": "5.0.2", "operating_system": "12.4.0", "model": "Wall", "revision": "REVG",
                "serial": "PX9", "hardware_flags": 17, "hardware_flags_hex": "0x11", "secure_keys": true,
                "secure_boot": true, "blessings": ["eac3", "vxear"]})"));
            EXPECT_EQ(answer["avs"], nlohmann::json::parse(R"({"revision": "1.2.3.4", "v0": 0.95, "t0": -2.0,
                "pv0": 1.0, "mv0": 0.007})"));
            EXPECT_EQ(answer["warnings"], nlohmann::json::array({ENUMERATED}));
        } else if (row.status == 0) {
            EXPECT_EQ(answer["warnings"], nlohmann::json::parse(R"(["SRB not valid. Please run manufacturing test.",
                "<3>Incompatible SSD detected. This player only supports NVMe/PCIe SSDs.",
                "SRB IS NOT SET. RUN MANUFACTURING TEST."])"));
        }
    }
}

TEST(VxtoolJson, EveryReadingCommandAnswersWhatItsTextSays)
{
    VXTEST_REQUIRE_TEST_KEYS();
    SavedPlayer player("1", "7", BOARD + "Secure-ID: " + SECURE_ID + "\n", BlessedDeviceData());
    const Args& all = player.args;
    const std::string boardid = player.dir.Path() + "/boardid";
    const std::string erased = player.dir.WriteFile("erased", std::string(2 * E, '\xFF'));
    const std::string enumerated = "[\"" + ENUMERATED + "\"]";

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
             "oem_id": "", "oem_model": "Wall", "srb_valid": false, "configured": true,
             "hardware_bitfield": 9350949109777, "hardware_bitfield_hex": "0x88130000011", "capabilities":
             ["hdmi", "ethernet", "eac3", "srb-configured", "vxear", "blessings-applied"]})", enumerated},
        {Args{"versions"} + Pick(all, {"--bolt-", "--rescue-", "--env-", "--devdata-", "--boardid", "--version"}), 0,
         R"({"bootloader": "v3.9.1", "first_images": "7.1.0", "rescue_kernel": "5.0.2",
             "operating_system": "12.4.0", "serial": "PX9"})", enumerated},
        {{"avs", "--dump", player.dir.Path() + "/avs"}, 0,
         R"({"revision": "1.2.3.4", "v0": 0.95, "t0": -2.0, "pv0": 1.0, "mv0": 0.007, "v1": 0.0, "t1": 0.0,
             "pv1": 0.0, "mv1": 0.0, "power_state": "Tracking", "heartbeat": 17, "magic": 2702573777,
             "status": "Enabled"})"},
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
