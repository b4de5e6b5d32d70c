#include "support/oracles.h"

#include <stdexcept>

#include "support/programs.h"

namespace vxtest {

std::string Le32(std::uint32_t v)
{
    return {char(v & 0xFF), char(v >> 8 & 0xFF), char(v >> 16 & 0xFF), char(v >> 24 & 0xFF)};
}

std::string EnvironmentRecord(const std::string& text, char type)
{
    return std::string(1, type) + static_cast<char>(text.size() + 1) + '\0' + text;
}

std::string EnvironmentBlock(const std::vector<std::string>& texts, std::size_t size)
{
    std::string block;
    for (const std::string& text : texts)
        block += EnvironmentRecord(text);
    block += '\0';
    block.resize(size, '\xFF');
    return block;
}

std::string Sha1sumChunk(const std::string& tag, const std::string& payload)
{
    const std::string sum = Run("/usr/bin/sha1sum", {}, payload).out;
    std::string chunk = tag + Le32(std::uint32_t(payload.size() + 20)) + payload;
    for (std::size_t i = 0; i < 40; i += 2)
        chunk.push_back(static_cast<char>(std::stoi(sum.substr(i, 2), nullptr, 16)));
    return chunk;
}

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
    const RunResult result = Run("/usr/bin/openssl", args, input);
    if (result.exit_status != 0)
        throw std::runtime_error("openssl failed: " + result.err);
    return result.out;
}

std::string CanonicalPublicKey(const std::string& pem_path)
{
    const auto describe = [&](const char* what) {
        return Openssl({"rsa", "-pubin", "-in", pem_path, "-noout", what});
    };
    const std::string modulus = describe("-modulus").substr(8, 512); // after "Modulus="
    const std::string text = describe("-text");
    const unsigned long exponent = std::stoul(text.substr(text.find("Exponent: ") + 10));
    std::string key("(10:public-key(3:rsa(1:n257:\0", 29);
    for (std::size_t i = 0; i < modulus.size(); i += 2)
        key.push_back(static_cast<char>(std::stoi(modulus.substr(i, 2), nullptr, 16)));
    key += ")(1:e3:";
    for (int shift : {16, 8, 0})
        key.push_back(static_cast<char>(exponent >> shift));
    return key + ")))";
}

std::string OpensslSign(const std::string& private_key_path, const std::string& message)
{
    return Openssl({"dgst", "-sha256", "-sign", private_key_path, "-binary"}, message);
}

std::string OpensslHmacSha256(const std::string& key, const std::string& message)
{
    return Openssl({"dgst", "-sha256", "-hmac", key, "-binary"}, message);
}

std::string OpensslSrbSignature(const std::string& key, const std::string& secure_id,
                                const std::string& message)
{
    const std::string signature =
        Openssl({"pkeyutl", "-sign", "-inkey", TestPrivateKey(key), "-pkeyopt", "digest:sha256"},
                OpensslHmacSha256(secure_id, message));
    return "A" + Openssl({"base64", "-A"}, signature);
}

std::string OpensslBlessingPayload(const std::string& key, const std::string& tag,
                                   const std::string& names, const std::string& parameter,
                                   const std::string& secure_id, const std::string& serial)
{
    const std::string optional = parameter.empty() ? "" : Field(parameter);
    const std::string message =
        Field(tag) + (tag == "BLES" ? Field(secure_id) + Field(serial) : "") + optional + Field(names);
    return Field(names) + Field(OpensslSign(TestPrivateKey(key), message)) + optional;
}

std::string Field(const std::string& bytes)
{
    return std::string{char(bytes.size() & 0xFF), char(bytes.size() >> 8)} + bytes;
}

} // namespace vxtest
