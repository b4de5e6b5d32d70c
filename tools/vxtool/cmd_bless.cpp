// vxtool bless: issues a signed blessing or boon as a device-data chunk.
#include <memory>
#include <string>

#include "command.h"
#include "factory/records.h"
#include "factory/rsa_signer.h"
#include "hardware/blessings.h"
#include "identity_options.h"
#include "platform/posix_helpers.h"

namespace vxtool {
namespace {

constexpr const char* USAGE =
    "--key KEY --names NAME[:NAME...] [--parameter TEXT] "
    "(--secure-id ID --serial SERIAL | --boon) -o FILE";

// Writes one encoded chunk (tag, length, payload, SHA-1) to FILE: a BLES
// record bound to the Secure ID and serial, or with --boon a BOON record
// bound to no device. The chunk file is input for vxtool mkdevdata. KEY is a
// PEM file or a PKCS#11 URI; without a pin-source in the URI the token's PIN
// is the first line of standard input.
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    std::string key_path, names, parameter, secure_id, serial, output;
    if (!TakeOption(args, "--key", key_path) || key_path.empty())
        throw UsageError("--key KEY is required");
    if (!TakeOption(args, "--names", names) || names.empty())
        throw UsageError("--names is required");
    TakeOption(args, "--parameter", parameter);
    const bool boon = TakeFlag(args, "--boon");
    const bool have_secure_id = TakeOption(args, "--secure-id", secure_id);
    const bool have_serial = TakeOption(args, "--serial", serial);
    if (!TakeOption(args, "-o", output) || output.empty())
        throw UsageError("-o FILE is required");
    ExpectNoMoreArguments(args);
    if (boon && (have_secure_id || have_serial))
        throw UsageError("a boon is bound to no device: --boon excludes --secure-id and --serial");
    if (!boon && (!have_secure_id || secure_id.empty() || !have_serial))
        throw UsageError("a blessing needs --secure-id and --serial (or --boon)");

    if (!boon)
        RequireReadableSecureId(secure_id);

    const std::unique_ptr<SigningKey> key = OpenSigningKey(key_path, ReadPinFromStandardInput);
    RequireAcceptedKey(*key, {BlessingPublicKey1(), BlessingPublicKey2()}, "blessing");
    const std::string tag = boon ? blessings::BOON_TAG : blessings::BLESSING_TAG;
    const std::string payload = MakeBlessingPayload(tag, names, parameter, secure_id, serial, *key);
    WriteOutput(output, EncodeDeviceDataChunk(tag, payload));
    return 0;
}

const CommandRegistrar reg({"bless", USAGE,
                            "issue a signed blessing (or boon) as a device-data chunk file",
                            &Run});

} // namespace
} // namespace vxtool
