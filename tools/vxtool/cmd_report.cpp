// vxtool report: the start-up check's own pass, on a live unit or on what
// was saved from a returned player, without its effects on the unit.
#include <cstdio>

#include <fmt/format.h>

#include "check/driver.h"
#include "check/startup_pass.h"
#include "command.h"
#include "hardware/board_id.h"
#include "hardware/bootloader_environment.h"
#include "hardware/firmware_versions.h"
#include "hardware/hardware_config.h"
#include "hardware/vx_device_data.h"
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

// Prints on standard error exactly what the check would print, and exits
// with its status. Instead of writing /etc/issue it prints the banner on
// standard output; instead of blinking the LED, "blink code N".
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    ToolContext& context = ToolContext::Get();
    std::string value;
    const PartitionOptions partitions(args, {ENVIRONMENT, DEVICE_DATA, BOOTLOADER, RESCUE_KERNEL});
    TakeSavedFiles(args, {SAVED_BOARD_ID, {"--meminfo", "/proc/meminfo"}, SAVED_VERSION_FILE, {"--mem", "/dev/mem"}});
    if (TakeOption(args, "--sys", value))
        context.UseTree("/sys", value);
    if (TakeOption(args, "--eth0-address", value))
        context.UseInterfaceAddress(ETHERNET_INTERFACE, ParseAddress(value));
    ExpectNoMoreArguments(args);
    partitions.Use();

    const HardwareConfig config;
    return RunChecks([] { RunStartupPass([](const std::string& banner) { fmt::print("{}", banner); }); },
                     [](ErrorLedPattern pattern) { fmt::print("blink code {}\n", int(pattern)); });
}

const CommandRegistrar reg({"report",
                            PartitionUsage(ENVIRONMENT) + " " + PartitionUsage(DEVICE_DATA) + " " +
                                PartitionUsage(BOOTLOADER) + " " + PartitionUsage(RESCUE_KERNEL) +
                                " [--boardid FILE] [--meminfo FILE] [--version-file FILE] [--mem FILE] [--sys DIR]"
                                " [--eth0-address MAC]",
                            "run the start-up check's pass and print its report, live or from saved data", &Run,
                            PARTITION_HELP});

} // namespace
} // namespace vxtool
