// vxtool report on what was saved from a returned player: the check's own
// messages and status, the banner on standard output instead of /etc/issue,
// and the blink code instead of the LED.
#include <filesystem>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "saved_player.h"
#include "support/json_schema.h"

namespace {

const std::string VERSIONS = "<6>VELTRIX boot=v3.9.1 firstimages=7.1.0 rescue=5.0.2 mission=12.4.0 model=";

// Each verdict that the report can show, in its text form and as its JSON
// answer (valid against the schema), with the same exit status: the
// healthy unit, a warning that does not stop the pass, and each failure row.
TEST(VxtoolReport, EveryVerdictInTextAndAsJson)
{
    VXTEST_REQUIRE_TEST_KEYS();
    const auto write = [](const char* file, const char* text) {
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
        const char* error;    // the JSON verdict's error (nullptr: null)
    } rows[] = {
        {"1", BlessedDeviceData(), nullptr, 0,
         "Hardware bitfield: before: 0x80100000011 after: 0x88130000011 blessings enumeration\n" + VERSIONS +
             "Wall REVG serial=PX9 hw=11 sk=0 sb=0 bl=eac3,vxear\n" + AVS,
         "Veltrix Wall PX9 v12.4.0\r\n\n", nullptr},
        {"1 ", "", write("sys/class/gpio/gpio64/value", "0\n"), 0,
         "SRB not valid. Please run manufacturing test.\n<3>Incompatible SSD detected. This player only supports "
         "NVMe/PCIe SSDs.SRB IS NOT SET. RUN MANUFACTURING TEST." + VERSIONS + " NO-SRB serial= hw=11 sk=0 sb=0\n" + AVS,
         "Veltrix   v12.4.0\r\n\n", nullptr},
        {"1", "", [](SavedPlayer& p) { p.args.back() = "ff:ff:ff:ff:ff:ff"; }, 1,
         "ERROR: Ethernet interface has invalid MAC address\n", "blink code 7\n",
         "Ethernet interface has invalid MAC address"},
        {"1", "", remove("sys/class/net/eth0"), 1, "ERROR: Ethernet device not found\n", "blink code 7\n",
         "Ethernet device not found"},
        {"1", "", write("meminfo", "MemTotal: 204799 kB\n"), 1,
         "Insufficient memory detected: 204799KB.\nERROR: Insufficient memory detected\n", "blink code 2\n",
         "Insufficient memory detected"},
        {"1", "", write("meminfo", "MemFree: 1 kB\n"), 1, "ERROR: Can't determine memory configuration\n",
         "blink code 2\n", "Can't determine memory configuration"},
        {"1", "", remove("version"), 2, "ERROR: @/version: No such file or directory (errno 2)\n", "blink code 2\n",
         "@/version: No such file or directory (errno 2)"},
        {"1", "VXDX", nullptr, 2,
         "Failed to enumerate blessings: Veltrix device data is corrupt\nERROR: Veltrix device data is corrupt\n",
         "blink code 2\n", "Veltrix device data is corrupt"},
        {"1", "", remove("mem"), 2,
         VERSIONS + "Wall REVG serial=PX9 hw=11 sk=0 sb=0\nERROR: @/mem: No such file or directory (errno 2)\n",
         "blink code 2\n", "@/mem: No such file or directory (errno 2)"},
    };
    for (const auto& row : rows) {
        SavedPlayer player(row.format, "7", BOARD + "Secure-ID: " + SECURE_ID + "\n", row.devdata);
        if (row.change)
            row.change(player);
        const auto here = [&player](std::string text) {
            for (std::size_t at; (at = text.find('@')) != std::string::npos;)
                text.replace(at, 1, player.dir.Path());
            return text;
        };
        const vxtest::RunResult text = vxtest::Vxtool(player.args);
        EXPECT_EQ(std::to_string(text.exit_status) + text.err + text.out,
                  std::to_string(row.status) + here(row.err) + row.out);

        player.args.push_back("--json");
        const vxtest::RunResult json = vxtest::Vxtool(player.args);
        EXPECT_EQ(json.exit_status, row.status) << json.out;
        EXPECT_EQ(vxtest::JsonSchemaErrors("report", json.out), "") << json.out;
        const auto answer = nlohmann::json::parse(json.out);
        const nlohmann::json verdict = {{"exit_status", row.status},
                                        {"blink_code", row.status ? nlohmann::json(row.out[11] - '0') : nullptr},
                                        {"error", row.error ? nlohmann::json(here(row.error)) : nullptr}};
        EXPECT_EQ(answer["verdict"], verdict) << json.out;
        // What the check prints beside the summary, the AVS line and the
        // ERROR line are the warnings, one per message.
        std::string warnings;
        for (const auto& warning : answer["warnings"])
            warnings += warning.get<std::string>() + "|";
        EXPECT_EQ(answer["summary"].is_null(), text.err.find("<6>VELTRIX") == std::string::npos);
        EXPECT_EQ(answer["banner"], row.status ? nlohmann::json(nullptr) : nlohmann::json(row.out));
        if (row.status == 0 && row.devdata.empty()) {
            EXPECT_EQ(warnings, "SRB not valid. Please run manufacturing test.|<3>Incompatible SSD detected. This "
                                "player only supports NVMe/PCIe SSDs.|SRB IS NOT SET. RUN MANUFACTURING TEST.|");
        }
    }
}

// The healthy unit's report in full: the summary's fields, the AVS values.
TEST(VxtoolReport, TheJsonSummaryHoldsEveryFieldOfTheLine)
{
    VXTEST_REQUIRE_TEST_KEYS();
    SavedPlayer player("1", "7", BOARD + "Secure-keys: 1\nSecure-ID: " + SECURE_ID + "\n", BlessedDeviceData());
    player.args.push_back("--json");
    const auto answer = nlohmann::json::parse(vxtest::Vxtool(player.args).out);
    EXPECT_EQ(answer["summary"], nlohmann::json::parse(R"({"bootloader": "v3.9.1", "first_images": "7.1.0",
        "rescue_kernel": "5.0.2", "operating_system": "12.4.0", "model": "Wall", "revision": "REVG",
        "serial": "PX9", "hardware_flags": 17, "hardware_flags_hex": "0x11", "secure_keys": true,
        "secure_boot": false, "blessings": ["eac3", "vxear"]})"));
    EXPECT_EQ(answer["avs"], nlohmann::json::parse(R"({"revision": "1.2.3.4", "v0": 0.95, "t0": -2.0,
        "pv0": 1.0, "mv0": 0.007})"));
    EXPECT_EQ(answer["warnings"], nlohmann::json::parse(
        R"(["Hardware bitfield: before: 0x80100000011 after: 0x88130000011 blessings enumeration"])"));
}

// The revision label and the two flags from their own keys of /proc/boardid
// (the blessing suffix and NO-SRB: above).
TEST(VxtoolReport, SummaryLabelAndFlags)
{
    const vxtest::RunResult r =
        vxtest::Vxtool(SavedPlayer("1", "0", BOARD + "Secure-keys: 0x2\nSecure-boot: 7\n").args);
    EXPECT_EQ(std::to_string(r.exit_status) + r.err, "0" + VERSIONS + "Wall REV@ serial=PX9 hw=11 sk=1 sb=1\n" + AVS);
}

} // namespace
