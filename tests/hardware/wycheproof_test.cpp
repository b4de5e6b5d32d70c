// Known-answer vectors for the signature verifier: every vector's public key
// as a stored key is (a canonical S-expression), its message hashed with
// SHA-256, and the verdict of VerifySignature against Wycheproof's.
#include <fstream>
#include <map>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "hardware/signature_verifier.h"
#include "support/oracles.h"

namespace {

// "(public-key(rsa(n <len>:<bytes>)(e <len>:<bytes>)))", as the program
// stores its keys.
std::string CanonicalKey(const std::string& n, const std::string& e)
{
    const auto atom = [](const std::string& bytes) { return std::to_string(bytes.size()) + ":" + bytes; };
    return "(10:public-key(3:rsa(1:n" + atom(n) + ")(1:e" + atom(e) + ")))";
}

std::string Sha256(const std::string& message)
{
    std::string digest(32, '\0');
    gcry_md_hash_buffer(GCRY_MD_SHA256, digest.data(), message.data(), message.size());
    return digest;
}

TEST(Wycheproof, RsaPkcs1Sha256VectorsGetTheirVerdict)
{
    std::ifstream file(VX_SOURCE_DIR "/tests/data/rsa_signature_2048_sha256_test.json");
    const nlohmann::json vectors = nlohmann::json::parse(file);
    std::map<std::string, int> counts;
    for (const auto& group : vectors.at("testGroups")) {
        const std::string key_text = CanonicalKey(vxtest::FromHex(group.at("publicKey").at("modulus")),
                                                  vxtest::FromHex(group.at("publicKey").at("publicExponent")));
        GcrySexp key;
        ASSERT_EQ(gcry_sexp_new(key.out(), key_text.data(), key_text.size(), 0), 0u);
        for (const auto& test : group.at("tests")) {
            const std::string result = test.at("result");
            const bool verified = VerifySignature(key, GCRY_MD_SHA256, Sha256(vxtest::FromHex(test.at("msg"))),
                                                  vxtest::FromHex(test.at("sig")));
            if (result != "acceptable") {
                EXPECT_EQ(verified, result == "valid") << "tcId " << test.at("tcId") << " " << test.at("comment");
            }
            ++counts[result + (verified ? " accepted" : " refused")];
        }
    }
    EXPECT_EQ(counts["valid accepted"] + counts["invalid refused"], 258);
    for (const auto& [what, count] : counts)
        std::printf("%s: %d\n", what.c_str(), count);
}

} // namespace
