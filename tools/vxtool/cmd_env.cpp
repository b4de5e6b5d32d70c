// vxtool env: prints the boot loader's environment.
#include <fmt/format.h>

#include "command.h"
#include "hardware/bootloader_environment.h"
#include "source.h"

namespace vxtool {
namespace {

int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    const SourceOptions source = TakeSourceOptions(args, BOOTLOADER_ENVIRONMENT_PARTITION);
    ExpectNoMoreArguments(args);

    // Unlike the start-up check, a load failure is an error here, reported by
    // main as "error: <reason>" with exit status 1.
    const NandAccess::Pointer nand = OpenSource(source);
    const BootloaderEnvironment environment = LoadBootloaderEnvironment(*nand);
    for (const auto& [key, value] : environment.variables)
        fmt::print("{}={}\n", key, value);
    return 0;
}

const CommandRegistrar reg({"env", SOURCE_USAGE,
                            "print the boot loader's environment as KEY=VALUE lines", &Run});

} // namespace
} // namespace vxtool
