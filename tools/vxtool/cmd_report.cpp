// vxtool report: the start-up check's own pass, on a live unit or on what
// was saved from a returned player, without its effects on the unit.
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "check/driver.h"
#include "check/startup_pass.h"
#include "command.h"
#include "hardware/board_id.h"
#include "hardware/bootloader_environment.h"
#include "hardware/firmware_versions.h"
#include "hardware/hardware_config.h"
#include "hardware/vx_device_data.h"
#include "json_answer.h"
#include "source.h"
#include "tool_context.h"

namespace vxtool {
namespace {

corvid::HardwareAddress ParseAddress(const std::string& text)
{
    corvid::HardwareAddress mac{};
    unsigned int octets[6];
    char end = 0;
    if (std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &octets[0], &octets[1], &octets[2], &octets[3],
                    &octets[4], &octets[5], &end) != 6 ||
        text.size() != 17)
        throw UsageError(fmt::format("--eth0-address: expected an address like 02:00:00:00:00:01, got '{}'", text));
    for (std::size_t i = 0; i < mac.size(); ++i)
        mac[i] = static_cast<std::uint8_t>(octets[i]);
    return mac;
}

// The options of the saved files report reads, and what they stand for.
const SavedFile SAVED_MEMINFO{"--meminfo", "/proc/meminfo"};
const SavedFile SAVED_MEM{"--mem", "/dev/mem"};

// The check's report as JSON: the verdict, the summary's fields, the AVS
// line's values and the banner (null when the pass ended before them).
nlohmann::json SummaryJson(const BootSummary& summary)
{
    const BootVersions& v = summary.versions;
    return {{"bootloader", v.bootloader},
            {"first_images", v.first_images},
            {"rescue_kernel", v.rescue_kernel},
            {"operating_system", v.operating_system},
            {"model", v.model},
            {"revision", summary.revision},
            {"serial", v.serial},
            {"hardware_flags", summary.hardware_flags},
            {"hardware_flags_hex", HexText(summary.hardware_flags)},
            {"secure_keys", summary.secure_keys},
            {"secure_boot", summary.secure_boot},
            {"blessings", summary.blessings}};
}

// Prints on standard error exactly what the check would print, and exits
// with its status. Instead of writing /etc/issue it prints the banner on
// standard output; instead of blinking the LED, "blink code N". Given some
// of its sources, it needs them all, or --live-others to read the rest from
// the machine it runs on: a returned player's images judged with this
// machine's memory or flash would be a report of neither.
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    ToolContext& context = ToolContext::Get();
    std::string value;
    const bool live_others = TakeFlag(args, "--live-others");
    const std::initializer_list<Partition> partition_list = {ENVIRONMENT, DEVICE_DATA, BOOTLOADER, RESCUE_KERNEL};
    const std::initializer_list<SavedFile> file_list = {SAVED_BOARD_ID, SAVED_MEMINFO, SAVED_VERSION_FILE, SAVED_MEM};
    const PartitionOptions partitions(args, partition_list);
    std::vector<std::string> live, saved;
    for (const Partition& partition : partition_list)
        (partitions.Named(partition) ? saved : live).push_back(fmt::format("--{}-image", partition.prefix));
    for (const SavedFile& file : file_list)
        (TakeSavedFile(args, file) ? saved : live).push_back(file.option);
    if (TakeOption(args, "--sys", value)) {
        context.UseTree("/sys", value);
        saved.push_back("--sys");
    } else {
        live.push_back("--sys");
    }
    if (TakeOption(args, "--eth0-address", value)) {
        context.UseInterfaceAddress(ETHERNET_INTERFACE, ParseAddress(value));
        saved.push_back("--eth0-address");
    } else {
        live.push_back("--eth0-address");
    }
    ExpectNoMoreArguments(args);
    if (!saved.empty() && !live.empty() && !live_others)
        throw UsageError(fmt::format("{} given, but not {}: give them too, or --live-others to read those from "
                                     "this machine",
                                     fmt::join(saved, ", "), fmt::join(live, ", ")));
    partitions.Use();

    const HardwareConfig config;
    nlohmann::json* json = JsonAnswer();
    if (!json) {
        return RunChecks([] { RunStartupPass([](const std::string& banner) { fmt::print("{}", banner); }); },
                         [](ErrorLedPattern pattern) { fmt::print("blink code {}\n", int(pattern)); });
    }
    nlohmann::json& answer = *json;
    answer = {{"summary", nullptr}, {"avs", nullptr}, {"banner", nullptr}};
    BootReport report;
    report.summary = [&answer](const BootSummary& summary) { answer["summary"] = SummaryJson(summary); };
    report.avs = [&answer](const std::map<std::string, std::string>& avs) {
        answer["avs"] = nlohmann::json::object();
        for (const char* key : AVS_LINE_KEYS)
            answer["avs"].update(AvsJson({{key, avs.count(key) ? avs.at(key) : ""}}));
    };
    report.banner = [&answer](const std::string& banner) { answer["banner"] = banner; };
    nlohmann::json verdict = {{"blink_code", nullptr}, {"error", nullptr}};
    const int status = RunChecks([&report] { RunStartupPass(report); },
                                 [&verdict](ErrorLedPattern pattern) { verdict["blink_code"] = int(pattern); },
                                 [&verdict](const char* what) { verdict["error"] = what; });
    verdict["exit_status"] = status;
    answer["verdict"] = verdict;
    return status;
}

const CommandRegistrar reg({"report",
                            PartitionUsage(ENVIRONMENT) + " " + PartitionUsage(DEVICE_DATA) + " " +
                                PartitionUsage(BOOTLOADER) + " " + PartitionUsage(RESCUE_KERNEL) +
                                " [--boardid FILE] [--meminfo FILE] [--version-file FILE] [--mem FILE] [--sys DIR]"
                                " [--eth0-address MAC] [--live-others]",
                            "run the start-up check's pass and print its report, live or from saved data", &Run,
                            PARTITION_HELP, true});

} // namespace
} // namespace vxtool
