// vxtool versions: the firmware versions of the boot report.
#include <fmt/format.h>

#include "command.h"
#include "hardware/board_id.h"
#include "hardware/bootloader_environment.h"
#include "hardware/firmware_versions.h"
#include "hardware/hardware_config.h"
#include "hardware/vx_device_data.h"
#include "identity_options.h"
#include "tool_context.h"

namespace vxtool {
namespace {

constexpr const char* USAGE =
    "[--bolt-mtd NAME | --bolt-image FILE --bolt-erase-size BYTES ...] "
    "[--rescue-mtd NAME | --rescue-image FILE --rescue-erase-size BYTES ...] "
    "[--env-mtd NAME | --env-image FILE --env-erase-size BYTES ...] "
    "[--devdata-mtd NAME | --devdata-image FILE --devdata-erase-size BYTES ...] "
    "[--boardid FILE] [--version-file FILE]";

// Prints the five texts in the order the boot report gathers them; the
// library's own messages go to standard error.
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    TakeSavedPlayer(args, {SAVED_BOARD_ID, SAVED_VERSION_FILE},
                    {SAVED_BOOTLOADER, SAVED_RESCUE_KERNEL, SAVED_ENVIRONMENT, SAVED_DEVICE_DATA});
    ExpectNoMoreArguments(args);

    // The boot-loader version comes from the hardware configuration, as in
    // the check.
    const HardwareConfig config;
    const std::string boot = GetBootloaderVersion();
    const std::string first_images = GetFirstImagesVersion();
    const std::string rescue = GetRescueKernelVersion();
    const std::string mission = GetOperatingSystemVersion();
    const std::string serial = GetSerialNumber();
    fmt::print("boot: {}\nfirstimages: {}\nrescue: {}\nmission: {}\nserial: {}\n", boot, first_images,
               rescue, mission, serial);
    return 0;
}

const CommandRegistrar reg({"versions", USAGE,
                            "print the firmware versions and serial number, live or from images", &Run});

} // namespace
} // namespace vxtool
