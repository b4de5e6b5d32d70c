// vxtool blessings: lists the names granted by the device's blessings.
#include <fmt/format.h>

#include "command.h"
#include "hardware/blessings.h"
#include "hardware/bootloader_environment.h"
#include "hardware/vx_device_data.h"
#include "identity_options.h"
#include "source.h"

namespace vxtool {
namespace {

constexpr const char* USAGE =
    "[--mtd NAME | --image FILE --erase-size BYTES ...] [--secure-id ID | --boardid FILE] "
    "[--serial SERIAL | --env-mtd NAME | --env-image FILE --env-erase-size BYTES ...]";

// One line per granted name: the name, a tab and the record's parameter.
// Skipped records are reported on standard error by the library; a partition
// whose blessing records are all refused is an error (exit 1). The serial
// number is --serial, or VX_SERIAL of the environment: from --env-mtd or
// --env-image, or, when the device data comes from the live flash, from
// flash0.nvram. With a device-data image and no environment source, --serial
// is required.
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    const SourceOptions source = TakeSourceOptions(args, DEVICE_DATA_PARTITION);
    const std::string secure_id = TakeSecureId(args);
    std::string serial;
    const bool have_serial = TakeOption(args, "--serial", serial);
    const SourceOptions env_source = TakeSourceOptions(args, BOOTLOADER_ENVIRONMENT_PARTITION, "env-");
    ExpectNoMoreArguments(args);
    if (have_serial && env_source.given)
        throw UsageError("--serial and the --env-* options exclude each other");
    if (!have_serial && !env_source.given && !source.image.empty())
        throw UsageError("with --image, give --serial or an --env-image");

    if (!have_serial) {
        const BootloaderEnvironment environment = LoadBootloaderEnvironment(*OpenSource(env_source));
        serial = environment.Serial();
    }
    const VeltrixDeviceDataStorageNand storage(OpenSource(source));
    std::size_t granted = 0, records = 0;
    blessings::EnumerateBlessings(storage, secure_id, serial,
                                  [&granted](const std::string& name, const std::string& parameter) {
                                      fmt::print("{}\t{}\n", name, parameter);
                                      ++granted;
                                  });
    // Stepping over the chunks only reads their headers.
    storage.ReadImage([&records](const std::string& tag) {
        records += tag == blessings::BLESSING_TAG || tag == blessings::BOON_TAG;
        return false;
    });
    if (records > 0 && granted == 0) {
        fmt::print(stderr, "error: none of the {} blessing records grants anything to this unit\n", records);
        return 1;
    }
    return 0;
}

const CommandRegistrar reg({"blessings", USAGE,
                            "list the names granted by the valid blessings of the device data",
                            &Run});

} // namespace
} // namespace vxtool
