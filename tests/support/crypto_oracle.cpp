#include "support/crypto_oracle.h"

#include <algorithm>
#include <stdexcept>

#include "hardware/stored_keys.h"
#include "support/sandbox.h"

namespace vxtest {
namespace {

constexpr const char* OPENSSL = "/usr/bin/openssl";

std::string Trim(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
        text.pop_back();
    return text;
}

bool Equal(StoredKey stored, const std::array<std::uint8_t, 298>& expected)
{
    return std::equal(stored.begin(), stored.end(), expected.begin());
}

} // namespace

std::string TestPrivateKey(const std::string& name)
{
    return std::string(VX_SOURCE_DIR) + "/keys/test/" + name + ".test-only.pem";
}

std::string TestPublicKey(const std::string& name)
{
    return std::string(VX_SOURCE_DIR) + "/keys/test/" + name + ".pub.pem";
}

std::string Openssl(const std::vector<std::string>& args, const std::string& input)
{
    const RunResult result = RunProgram(OPENSSL, args, input);
    if (result.exit_status != 0)
        throw std::runtime_error("openssl failed: " + result.err);
    return result.out;
}

std::array<std::uint8_t, 298> CanonicalPublicKey(const std::string& pem_path)
{
    const std::string modulus_line =
        Trim(Openssl({"rsa", "-pubin", "-in", pem_path, "-noout", "-modulus"}));
    const std::string prefix = "Modulus=";
    if (modulus_line.rfind(prefix, 0) != 0 || modulus_line.size() != prefix.size() + 512)
        throw std::runtime_error("unexpected modulus from openssl: " + modulus_line);
    const std::string text = Openssl({"rsa", "-pubin", "-in", pem_path, "-noout", "-text"});
    const auto at = text.find("Exponent: ");
    if (at == std::string::npos)
        throw std::runtime_error("no exponent from openssl");
    const unsigned long exponent = std::stoul(text.substr(at + 10));

    std::string bytes = "(10:public-key(3:rsa(1:n257:";
    bytes.push_back('\0');
    bytes += FromHex(modulus_line.substr(prefix.size()));
    bytes += ")(1:e3:";
    bytes.push_back(static_cast<char>(exponent >> 16));
    bytes.push_back(static_cast<char>(exponent >> 8));
    bytes.push_back(static_cast<char>(exponent));
    bytes += ")))";
    std::array<std::uint8_t, 298> key{};
    if (bytes.size() != key.size())
        throw std::runtime_error("canonical key of unexpected size");
    std::copy(bytes.begin(), bytes.end(), key.begin());
    return key;
}

bool StoredKeysAreTestKeys()
{
    static const bool result = Equal(SrbPublicKey1(), CanonicalPublicKey(TestPublicKey("srb-1"))) &&
                               Equal(SrbPublicKey2(), CanonicalPublicKey(TestPublicKey("srb-2"))) &&
                               Equal(BlessingPublicKey1(), CanonicalPublicKey(TestPublicKey("blessing-1"))) &&
                               Equal(BlessingPublicKey2(), CanonicalPublicKey(TestPublicKey("blessing-2")));
    return result;
}

std::string OpensslSign(const std::string& private_key_path, const std::string& message)
{
    return Openssl({"dgst", "-sha256", "-sign", private_key_path, "-binary"}, message);
}

std::string OpensslHmacSha256(const std::string& key, const std::string& message)
{
    return Openssl({"dgst", "-sha256", "-hmac", key, "-binary"}, message);
}

std::string OpensslSha1(const std::string& message)
{
    return Openssl({"dgst", "-sha1", "-binary"}, message);
}

std::string ToHex(const std::string& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char c : bytes) {
        hex.push_back(digits[c >> 4]);
        hex.push_back(digits[c & 15]);
    }
    return hex;
}

std::string FromHex(const std::string& hex)
{
    if (hex.size() % 2 != 0)
        throw std::runtime_error("odd hex text");
    std::string bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2)
        bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

} // namespace vxtest
