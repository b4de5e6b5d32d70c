#include "hardware/srb.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include <fmt/format.h>

#include "hardware/signature_verifier.h"
#include "platform/assert.h"
#include "platform/base64.h"

namespace {

const bool s_gcrypt = (InitialiseGcrypt(), true);

std::string UpperCase(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}


} // namespace

bool IsSrbVariable(const std::string& name)
{
    const std::string upper = UpperCase(name);
    return upper.starts_with("VX_") || upper == "ETH0_HWADDR" || upper == "WLAN0_HWADDR";
}

bool IsSignedSrbVariable(const std::string& name)
{
    if (!IsSrbVariable(name))
        return false;
    const std::string upper = UpperCase(name);
    // A prefix test here but an exact test below: VX_SIGNATURE_0 is left out,
    // VX_HWPROFILE2 is signed.
    return !upper.starts_with("VX_SIGNATURE") && upper != "VX_HWPROFILE";
}

std::string GetSplitVariable(const std::map<std::string, std::string>& environment,
                             const std::string& name)
{
    if (const auto whole = environment.find(name); whole != environment.end())
        return whole->second;
    std::string value;
    for (unsigned index = 0;; ++index) {
        const auto part = environment.find(fmt::format("{}_{}", name, index));
        if (part == environment.end())
            break;
        value += part->second;
    }
    return value;
}

std::string ComputeSrbDigest(const std::map<std::string, std::string>& environment,
                             const std::string& secure_id)
{
    GcryMd md;
    if (const gcry_error_t error = gcry_md_open(md.out(), GCRY_MD_SHA256, GCRY_MD_FLAG_HMAC))
        ThrowGcryptError(error);
    if (const gcry_error_t error = gcry_md_setkey(md.get(), secure_id.data(), secure_id.size()))
        ThrowGcryptError(error);
    for (const auto& [name, value] : environment) {
        if (!IsSignedSrbVariable(name))
            continue;
        gcry_md_write(md.get(), name.data(), name.size());
        gcry_md_write(md.get(), "\n", 1);
        gcry_md_write(md.get(), value.data(), value.size());
        gcry_md_write(md.get(), "\n", 1);
    }
    const unsigned char* mac = gcry_md_read(md.get(), GCRY_MD_SHA256);
    return std::string(reinterpret_cast<const char*>(mac), gcry_md_get_algo_dlen(GCRY_MD_SHA256));
}

void VerifySrb(const std::map<std::string, std::string>& environment, const std::string& secure_id)
{
    if (secure_id.empty())
        throw std::runtime_error("No secure ID");
    const std::string signature = GetSplitVariable(environment, SRB_SIGNATURE_VARIABLE);
    if (signature.empty())
        throw std::runtime_error("SRB signature not found");
    if (signature.size() == 1)
        throw std::runtime_error("SRB signature incomplete");
    if (signature[0] != SRB_SIGNATURE_TYPE_RSA)
        throw std::runtime_error("Unsupported SRB signature");

    const std::size_t len = signature.size();
    const std::string t = corvid::base64::Decode(std::string_view(signature).substr(1));
    using corvid::base64::DecodedLength;
    CORVID_ASSERT(t.length() <= DecodedLength(len), "lib/hardware/srb", 96,
                  "void VerifySrb(const std::map<std::__cxx11::basic_string<char>, "
                  "std::__cxx11::basic_string<char> >&, const std::string&)",
                  "t.length() <= DecodedLength(len)");

    const std::string digest = ComputeSrbDigest(environment, secure_id);
    for (StoredKey stored : {SrbPublicKey1(), SrbPublicKey2()}) {
        const GcrySexp key = LoadPublicKey(stored);
        if (VerifySignature(key, GCRY_MD_SHA256, digest, t))
            return;
    }
    throw std::runtime_error("SRB signature verification failed");
}
