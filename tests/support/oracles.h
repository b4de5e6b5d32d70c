// Independent references for the tests: byte layouts written out here from
// the formats' definitions, and the openssl and coreutils tools for digests
// and signatures, so the program is checked against output it did not
// produce. Also the small outcome helpers the tests share.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "platform/posix_helpers.h"

namespace vxtest {

// 4 little-endian bytes.
std::string Le32(std::uint32_t value);
// A field of a signed record: 16-bit little-endian length, then the bytes.
std::string Field(const std::string& bytes);
// One environment record (type, length, flags 0, text).
std::string EnvironmentRecord(const std::string& text, char type = '\x01');
// An environment block: a record per text, the end byte, 0xFF up to size.
std::string EnvironmentBlock(const std::vector<std::string>& texts, std::size_t size);
// A device-data chunk whose SHA-1 comes from coreutils' sha1sum.
std::string Sha1sumChunk(const std::string& tag, const std::string& payload);

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
// An SRB signature text made by openssl: "A" and the base64 of the PKCS#1
// v1.5 SHA-256 signature of the HMAC of message (the signed variables as
// "NAME\nVALUE\n", in name order) keyed with the Secure ID.
std::string OpensslSrbSignature(const std::string& key, const std::string& secure_id,
                                const std::string& message);
// A blessing payload signed by openssl (fields: names, signature, and the
// parameter only when it is not empty).
std::string OpensslBlessingPayload(const std::string& key, const std::string& tag,
                                   const std::string& names, const std::string& parameter,
                                   const std::string& secure_id, const std::string& serial);

// The what() of the standard exception that f throws, or "no exception".
template <typename F>
std::string WhatOf(F&& f)
{
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "no exception";
}

// The error number and context of the ErrnoException that f throws.
template <typename F>
std::pair<int, std::string> ErrnoOf(F&& f)
{
    try {
        f();
    } catch (const corvid::ErrnoException& e) {
        return {e.GetErrno(), e.GetContext()};
    }
    return {0, "no exception"};
}

} // namespace vxtest

// Skips a test that signs with the committed test keys when the build stores
// others (the stored-key test checks that the build stores what it names).
#define VXTEST_REQUIRE_TEST_KEYS()                                                 \
    do {                                                                           \
        if (std::string(VX_PUBLIC_KEYS_DIR) != VX_SOURCE_DIR "/keys/test")         \
            GTEST_SKIP() << "the build stores keys other than keys/test";          \
    } while (0)
