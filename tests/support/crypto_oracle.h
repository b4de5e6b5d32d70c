// Independent references for the signature tests: the openssl tool signs,
// MACs and describes keys, so the program is checked against output it did
// not produce.
#pragma once

#include <string>
#include <vector>

namespace vxtest {

// Paths of the committed test keys, e.g. TestPrivateKey("srb-1").
std::string TestPrivateKey(const std::string& name);
std::string TestPublicKey(const std::string& name);
// Runs openssl with input on standard input; returns its output, throws when it fails.
std::string Openssl(const std::vector<std::string>& args, const std::string& input = {});
// The 298-byte canonical S-expression of a PEM public key, from openssl's description.
std::string CanonicalPublicKey(const std::string& pem_path);
// openssl dgst -sha256 -sign (raw signature) and -hmac (the 32 MAC bytes).
std::string OpensslSign(const std::string& private_key_path, const std::string& message);
std::string OpensslHmacSha256(const std::string& key, const std::string& message);
// A field of a blessing record written by hand: 16-bit little-endian length, bytes.
std::string Field(const std::string& bytes);

} // namespace vxtest

// Skips a test that signs with the committed test keys when the build stores
// others (the stored-key test checks that the build stores what it names).
#define VXTEST_REQUIRE_TEST_KEYS()                                                 \
    do {                                                                           \
        if (std::string(VX_PUBLIC_KEYS_DIR) != VX_SOURCE_DIR "/keys/test")         \
            GTEST_SKIP() << "the build stores keys other than keys/test";          \
    } while (0)
