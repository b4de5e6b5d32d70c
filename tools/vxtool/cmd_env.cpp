// vxtool env: prints the boot loader's environment.
#include <fmt/format.h>

#include "command.h"
#include "hardware/bootloader_environment.h"
#include "hardware/context.h"
#include "source.h"

namespace vxtool {
namespace {

int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    const PartitionOptions partitions(args, {ENVIRONMENT}, &ENVIRONMENT);
    ExpectNoMoreArguments(args);
    partitions.Use();

    // Unlike the start-up check, a load failure is an error here, reported by
    // main as "error: <reason>" with exit status 1.
    const BootloaderEnvironment environment =
        LoadBootloaderEnvironment(*Context::GetInstance()->OpenPartition(ENVIRONMENT.name));
    for (const auto& [key, value] : environment.variables)
        fmt::print("{}={}\n", key, value);
    return 0;
}

const CommandRegistrar reg({"env", PartitionUsage(ENVIRONMENT),
                            "print the boot loader's environment as KEY=VALUE lines", &Run, PARTITION_HELP});

} // namespace
} // namespace vxtool
