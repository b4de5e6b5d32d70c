// vxtool blessings: lists the names granted by the device's blessings.
#include <stdexcept>

#include <fmt/format.h>

#include "command.h"
#include "hardware/blessings.h"
#include "hardware/bootloader_environment.h"
#include "hardware/context.h"
#include "hardware/vx_device_data.h"
#include "identity_options.h"
#include "source.h"

namespace vxtool {
namespace {

// One line per granted name: the name, a tab and the record's parameter.
// Skipped records are reported on standard error by the library; a partition
// whose blessing records are all refused is an error (exit 1), which names
// the missing Secure ID if there is none. The serial
// number is --serial, or VX_SERIAL of the environment: from --env-mtd or
// --env-image, or, when the device data comes from the live flash, from
// flash0.nvram. With a device-data image and no environment source, --serial
// is required. The device data's options may be spelled without the prefix
// (--image ...).
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    const PartitionOptions partitions(args, {DEVICE_DATA, ENVIRONMENT}, &DEVICE_DATA);
    const SecureId secure_id = TakeSecureId(args);
    std::string serial;
    const bool have_serial = TakeOption(args, "--serial", serial);
    ExpectNoMoreArguments(args);
    if (have_serial && partitions.Named(ENVIRONMENT))
        throw UsageError("--serial and the --env-* options exclude each other");
    if (!have_serial && !partitions.Named(ENVIRONMENT) && partitions.FromImage(DEVICE_DATA))
        throw UsageError("with --image, give --serial or an --env-image");
    partitions.Use();

    Context& context = *Context::GetInstance();
    if (!have_serial)
        serial = LoadBootloaderEnvironment(*context.OpenPartition(ENVIRONMENT.name)).Serial();
    const VeltrixDeviceDataStorageNand storage(context.OpenPartition(DEVICE_DATA.name));
    nlohmann::json* json = JsonAnswer();
    if (json)
        *json = {{"secure_id", secure_id.value}, {"serial", serial}, {"granted", nlohmann::json::array()}};
    std::size_t granted = 0, records = 0;
    blessings::EnumerateBlessings(storage, secure_id.value, serial,
                                  [&](const std::string& name, const std::string& parameter) {
                                      if (json)
                                          (*json)["granted"].push_back({{"name", name}, {"parameter", parameter}});
                                      else
                                          fmt::print("{}\t{}\n", name, parameter);
                                      ++granted;
                                  });
    // Stepping over the chunks only reads their headers.
    storage.ReadImage([&records](const std::string& tag) {
        records += tag == blessings::BLESSING_TAG || tag == blessings::BOON_TAG;
        return false;
    });
    if (json)
        (*json)["records"] = records;
    if (records > 0 && granted == 0)
        throw std::runtime_error(
            fmt::format("none of the {} blessing records grants anything to this unit{}", records,
                        secure_id.absence.empty() ? "" : " (" + secure_id.absence + ")"));
    return 0;
}

const CommandRegistrar reg({"blessings",
                            PartitionUsage(DEVICE_DATA) + " [--secure-id ID | --boardid FILE] " +
                                PartitionUsage(ENVIRONMENT, "--serial SERIAL"),
                            "list the names granted by the valid blessings of the device data", &Run,
                            PARTITION_HELP, true});

} // namespace
} // namespace vxtool
