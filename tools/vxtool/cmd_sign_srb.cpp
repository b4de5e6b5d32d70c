// vxtool sign-srb: signs the manufacturing record (SRB) of an environment.
#include <cctype>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "command.h"
#include "factory/records.h"
#include "factory/rsa_signer.h"
#include "hardware/srb.h"
#include "identity_options.h"
#include "platform/posix_helpers.h"

namespace vxtool {
namespace {

// True for VX_SIGNATURE and VX_SIGNATURE_<n>: the variables the signature
// is stored in, which the new signature replaces.
bool IsSignatureVariable(const std::string& key)
{
    const std::string base = SRB_SIGNATURE_VARIABLE;
    if (key == base)
        return true;
    if (key.size() <= base.size() + 1 || key.compare(0, base.size() + 1, base + "_") != 0)
        return false;
    for (std::size_t i = base.size() + 1; i < key.size(); ++i) {
        if (!std::isdigit(static_cast<unsigned char>(key[i])))
            return false;
    }
    return true;
}

// Reads KEY=VALUE lines on standard input (a carriage return before the line
// end is dropped, empty lines are skipped), drops any earlier signature
// variables, and writes the lines back followed by the signature: one
// VX_SIGNATURE line when it fits an environment record, else VX_SIGNATURE_0,
// VX_SIGNATURE_1, ... The output is ready for vxtool mkenv. As on the
// player, a key given twice takes its last value. KEY is a PEM file or a
// PKCS#11 URI with a pin-source.
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    std::string key_path, secure_id;
    if (!TakeOption(args, "--key", key_path) || key_path.empty())
        throw UsageError("--key KEY is required");
    if (!TakeOption(args, "--secure-id", secure_id) || secure_id.empty())
        throw UsageError("--secure-id ID is required");
    ExpectNoMoreArguments(args);

    RequireReadableSecureId(secure_id);

    // Standard input holds the records, so a token's PIN comes from its URI's pin-source.
    const std::unique_ptr<SigningKey> key = OpenSigningKey(key_path, [](const std::string& token) -> std::string {
        throw std::runtime_error(fmt::format("token '{}' needs its PIN, and standard input holds the records: "
                                             "give the PIN with pin-source=file:PATH in the URI",
                                             token));
    });
    RequireAcceptedKey(*key, {SrbPublicKey1(), SrbPublicKey2()}, "SRB");

    std::vector<std::string> lines;
    std::map<std::string, std::string> environment;
    std::string line;
    for (unsigned number = 1; std::getline(std::cin, line); ++number) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty())
            continue;
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos)
            throw std::runtime_error(fmt::format("line {}: no '=' in '{}'", number, line));
        const std::string name = line.substr(0, equals);
        if (IsSignatureVariable(name))
            continue;
        environment[name] = line.substr(equals + 1);
        lines.push_back(line);
    }
    if (std::cin.bad())
        throw corvid::ErrnoException(EIO, "standard input");

    const std::string signature = SignSrb(environment, secure_id, *key);
    for (const std::string& text : lines)
        fmt::print("{}\n", text);
    for (const auto& [name, value] : SrbSignatureVariables(signature))
        fmt::print("{}={}\n", name, value);
    return 0;
}

const CommandRegistrar reg({"sign-srb", "--key KEY --secure-id ID",
                            "sign the KEY=VALUE lines on standard input for one device and write "
                            "them with the signature variables (input for mkenv)",
                            &Run});

} // namespace
} // namespace vxtool
