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
// "error: ..."). Without a Secure ID the reason says where it was looked for.
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    const PartitionOptions partitions(args, {ENVIRONMENT}, &ENVIRONMENT);
    const SecureId secure_id = TakeSecureId(args);
    ExpectNoMoreArguments(args);
    partitions.Use();

    const BootloaderEnvironment environment =
        LoadBootloaderEnvironment(*Context::GetInstance()->OpenPartition(ENVIRONMENT.name));
    std::string reason;
    try {
        VerifySrb(environment.variables, secure_id.value);
    } catch (const std::runtime_error& e) {
        reason = e.what();
        if (!secure_id.absence.empty())
            reason += " (" + secure_id.absence + ")";
    }
    // The player reads the record only when VX_FORMAT is exactly "1".
    const bool valid = reason.empty(), read = environment.HasSrb();
    if (nlohmann::json* json = JsonAnswer()) {
        *json = {{"signature_valid", valid}, {"srb_present", read}, {"secure_id", secure_id.value},
                 {"secure_id_source", secure_id.source}};
        if (!valid)
            (*json)["reason"] = reason;
    } else if (!valid) {
        fmt::print("invalid: {}\n", reason);
    } else if (!read) {
        fmt::print("valid signature, but VX_FORMAT is not \"1\": the player treats this unit as having no SRB\n");
    } else {
        fmt::print("valid\n");
    }
    return valid && read ? 0 : 1;
}

const CommandRegistrar reg({"srb", PartitionUsage(ENVIRONMENT) + " [--secure-id ID | --boardid FILE]",
                            "verify the signed manufacturing record (SRB) of the environment", &Run,
                            PARTITION_HELP, true});

} // namespace
} // namespace vxtool
