#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "factory/rsa_signer.h"
#include "hardware/signature_verifier.h"
#include "support/oracles.h"

namespace {

using Error = std::runtime_error;
using testing::StrEq;
using testing::ThrowsMessage;
using vxtest::CanonicalPublicKey;
using vxtest::TestPrivateKey;

std::string Sha256(const std::string& message)
{
    std::string digest(32, '\0');
    gcry_md_hash_buffer(GCRY_MD_SHA256, digest.data(), message.data(), message.size());
    return digest;
}

// A test key's canonical bytes parsed as the program parses its stored keys.
GcrySexp TestKey(const std::string& name, std::size_t break_at = 298)
{
    std::string bytes = CanonicalPublicKey(vxtest::TestPublicKey(name));
    if (break_at < bytes.size())
        bytes[break_at] = 'x';
    return LoadPublicKey(StoredKey(reinterpret_cast<const std::uint8_t*>(bytes.data()), 298));
}

TEST(StoredKeys, AreTheConfiguredPemKeysInCanonicalFormAndParse)
{
    for (const auto& [key, name] : {std::pair{SrbPublicKey1(), "srb-1"}, {SrbPublicKey2(), "srb-2"},
                                    {BlessingPublicKey1(), "blessing-1"},
                                    {BlessingPublicKey2(), "blessing-2"}}) {
        EXPECT_EQ(std::string(key.begin(), key.end()), CanonicalPublicKey(VX_PUBLIC_KEYS_DIR + ("/" + std::string(name)) +
                                            ".pub.pem"));
        EXPECT_EQ(gcry_pk_get_nbits(LoadPublicKey(key).get()), 2048u) << name;
    }
    EXPECT_THAT([] { TestKey("srb-1", 297); }, // the last closing parenthesis broken
                ThrowsMessage<Error>(StrEq(gcry_strerror(GPG_ERR_SEXP_UNMATCHED_PAREN))));
}

TEST(VerifySignature, AcceptsAnOpensslSignatureOnlyForItsKeyDigestAndAlgorithm)
{
    const GcrySexp key = TestKey("blessing-2");
    const std::string digest = Sha256("record");
    const std::string signature = vxtest::OpensslSign(TestPrivateKey("blessing-2"), "record");
    std::string flipped = signature;
    flipped[100] ^= 0x01;

    EXPECT_TRUE(VerifySignature(key, GCRY_MD_SHA256, digest, signature));
    EXPECT_TRUE(VerifySignature(key, GCRY_MD_SHA256, digest, std::string(3, '\0') + signature));
    EXPECT_FALSE(VerifySignature(TestKey("blessing-1"), GCRY_MD_SHA256, digest, signature));
    EXPECT_FALSE(VerifySignature(key, GCRY_MD_SHA256, Sha256("other"), signature));
    EXPECT_FALSE(VerifySignature(key, GCRY_MD_SHA3_256, digest, signature));
    for (const std::string& bad : {std::string(), signature.substr(0, 32), signature.substr(1),
                                   signature + '\0', flipped, std::string(256, '\xff')})
        EXPECT_FALSE(VerifySignature(key, GCRY_MD_SHA256, digest, bad)) << bad.size();
    // Shorter than the digest: false before libgcrypt is asked, even without a key.
    EXPECT_FALSE(VerifySignature(GcrySexp(), GCRY_MD_SHA256, digest, signature.substr(0, 31)));
}

TEST(SignDigest, SignsLikeOpensslFromBothPemForms)
{
    const std::string pem = TestPrivateKey("srb-2");
    const std::string pkcs1 = vxtest::Openssl({"rsa", "-in", pem, "-traditional"});
    ASSERT_NE(pkcs1.find("BEGIN RSA PRIVATE KEY"), std::string::npos);
    for (const GcrySexp& key : {LoadPrivateKeyFile(pem), LoadPrivateKeyPem(pkcs1)})
        EXPECT_EQ(SignDigest(key, GCRY_MD_SHA256, Sha256("record")),
                  vxtest::OpensslSign(pem, "record"));
}

TEST(InitialiseGcrypt, PinsTheVersionBuiltAgainst)
{
    EXPECT_NO_THROW(CheckGcryptVersion(GCRYPT_VERSION));
    EXPECT_THAT([] { CheckGcryptVersion("99.0.0"); },
                ThrowsMessage<Error>(StrEq("Incorrect libgcrypt version. Expected 99.0.0")));
}

} // namespace
