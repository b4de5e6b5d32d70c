// Independent references for the signature tests: the openssl command-line
// tool signs, MACs and describes keys, so that the program's own code is
// checked against something it did not produce.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace vxtest {

// Path of a committed test private key, e.g. TestPrivateKey("srb-1").
std::string TestPrivateKey(const std::string& name);
// Path of a committed test public key, e.g. TestPublicKey("blessing-2").
std::string TestPublicKey(const std::string& name);

// Runs openssl with args and input on standard input; returns its standard
// output. Fails the test (throws) when openssl fails.
std::string Openssl(const std::vector<std::string>& args, const std::string& input = {});

// The 298-byte canonical S-expression of a PEM public key, built from
// openssl's description of the key.
std::array<std::uint8_t, 298> CanonicalPublicKey(const std::string& pem_path);

// True when the program's stored keys are the committed test keys.
bool StoredKeysAreTestKeys();

// openssl dgst -sha256 -sign over message: the raw RSA PKCS#1 v1.5 signature.
std::string OpensslSign(const std::string& private_key_path, const std::string& message);

// openssl dgst -sha256 -hmac key over message: the 32 MAC bytes.
std::string OpensslHmacSha256(const std::string& key, const std::string& message);

// openssl dgst -sha1 over message: the 20 digest bytes.
std::string OpensslSha1(const std::string& message);

// Lower-case hex of bytes, and back.
std::string ToHex(const std::string& bytes);
std::string FromHex(const std::string& hex);

} // namespace vxtest

// Skips a test that signs with the committed test private keys when the
// build stores other public keys.
#define VXTEST_REQUIRE_TEST_KEYS()                                                 \
    do {                                                                           \
        if (!::vxtest::StoredKeysAreTestKeys())                                    \
            GTEST_SKIP() << "the build stores keys other than keys/test";          \
    } while (0)
