// vxtool srb: verifies the signed manufacturing record of the environment.
#include <stdexcept>

#include <fmt/format.h>

#include "command.h"
#include "hardware/bootloader_environment.h"
#include "hardware/context.h"
#include "hardware/srb.h"
#include "identity_options.h"
#include "source.h"

namespace vxtool {
namespace {

// Prints "valid" and exits 0, or "invalid: <reason>" and exits 1; a valid
// record that the player ignores (VX_FORMAT not "1") is said to be so, exit
// 1. A failure to read the environment itself is an error (exit 1,
// "error: ...").
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    const PartitionOptions partitions(args, {ENVIRONMENT}, &ENVIRONMENT);
    const std::string secure_id = TakeSecureId(args);
    ExpectNoMoreArguments(args);
    partitions.Use();

    const BootloaderEnvironment environment =
        LoadBootloaderEnvironment(*Context::GetInstance()->OpenPartition(ENVIRONMENT.name));
    try {
        VerifySrb(environment.variables, secure_id);
    } catch (const std::runtime_error& e) {
        fmt::print("invalid: {}\n", e.what());
        return 1;
    }
    // The player reads the record only when VX_FORMAT is exactly "1".
    if (!environment.HasSrb()) {
        fmt::print("valid signature, but VX_FORMAT is not \"1\": the player treats this unit as having no SRB\n");
        return 1;
    }
    fmt::print("valid\n");
    return 0;
}

const CommandRegistrar reg({"srb", PartitionUsage(ENVIRONMENT) + " [--secure-id ID | --boardid FILE]",
                            "verify the signed manufacturing record (SRB) of the environment", &Run,
                            PARTITION_HELP});

} // namespace
} // namespace vxtool
