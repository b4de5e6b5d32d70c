// vxtool versions: the firmware versions of the boot report.
#include <fmt/format.h>

#include "command.h"
#include "hardware/board_id.h"
#include "hardware/bootloader_environment.h"
#include "hardware/firmware_versions.h"
#include "hardware/hardware_config.h"
#include "hardware/vx_device_data.h"
#include "source.h"

namespace vxtool {
namespace {

// Prints the five texts in the order the boot report gathers them; the
// library's own messages go to standard error.
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    const PartitionOptions partitions(args, {BOOTLOADER, RESCUE_KERNEL, ENVIRONMENT, DEVICE_DATA});
    TakeSavedFiles(args, {SAVED_BOARD_ID, SAVED_VERSION_FILE});
    ExpectNoMoreArguments(args);
    partitions.Use();

    // The boot-loader version comes from the hardware configuration, as in
    // the check.
    const HardwareConfig config;
    const std::string boot = GetBootloaderVersion();
    const std::string first_images = GetFirstImagesVersion();
    const std::string rescue = GetRescueKernelVersion();
    const std::string mission = GetOperatingSystemVersion();
    const std::string serial = GetSerialNumber();
    if (nlohmann::json* json = JsonAnswer()) {
        *json = {{"bootloader", boot}, {"first_images", first_images}, {"rescue_kernel", rescue},
                 {"operating_system", mission}, {"serial", serial}};
        return 0;
    }
    fmt::print("boot: {}\nfirstimages: {}\nrescue: {}\nmission: {}\nserial: {}\n", boot, first_images,
               rescue, mission, serial);
    return 0;
}

const CommandRegistrar reg({"versions",
                            PartitionUsage(BOOTLOADER) + " " + PartitionUsage(RESCUE_KERNEL) + " " +
                                PartitionUsage(ENVIRONMENT) + " " + PartitionUsage(DEVICE_DATA) +
                                " [--boardid FILE] [--version-file FILE]",
                            "print the firmware versions and serial number, live or from images", &Run,
                            PARTITION_HELP, true});

} // namespace
} // namespace vxtool
