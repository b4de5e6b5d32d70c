// Independent references: byte layouts written out from the formats'
// definitions, and openssl and coreutils for digests and signatures, so the
// program is checked against output it did not produce; outcome helpers.
#pragma once

#include <cstdint>
#include <exception>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/programs.h"

namespace vxtest {

// 4 little-endian bytes.
inline std::string Le32(std::uint32_t v)
{
    return {char(v & 0xFF), char(v >> 8 & 0xFF), char(v >> 16 & 0xFF), char(v >> 24 & 0xFF)};
}

// A field of a signed record: 16-bit little-endian length, then the bytes.
inline std::string Field(const std::string& bytes)
{
    return std::string{char(bytes.size() & 0xFF), char(bytes.size() >> 8)} + bytes;
}

// One environment record (type, length, flags 0, text).
inline std::string EnvironmentRecord(const std::string& text, char type = '\x01')
{
    return std::string(1, type) + static_cast<char>(text.size() + 1) + '\0' + text;
}

// An environment block: a record per text, the end byte, 0xFF up to size.
inline std::string EnvironmentBlock(const std::vector<std::string>& texts, std::size_t size)
{
    std::string block;
    for (const std::string& text : texts)
        block += EnvironmentRecord(text);
    block += '\0';
    block.resize(size, '\xFF');
    return block;
}

// A partition's bytes in physical order after data was laid over its good
// blocks from a logical offset on: the logical bytes (erased before the
// offset and after the data) cut into erase blocks, one for each good block
// in turn; bad blocks keep bad_fill.
inline std::string GoodBlockLayout(const std::string& data, std::size_t offset, std::size_t blocks,
                                   std::size_t erase_size, const std::set<std::size_t>& bad, char bad_fill)
{
    std::string logical = std::string(offset, '\xFF') + data, physical;
    logical.resize(blocks * erase_size, '\xFF');
    for (std::size_t block = 0, good = 0; block < blocks; ++block)
        physical += bad.count(block) ? std::string(erase_size, bad_fill)
                                     : logical.substr(erase_size * good++, erase_size);
    return physical;
}

// The documented capabilities of the hardware bitfield, written out here
// rather than read from the program's table: a bit's mask, the name vxtool
// prints for it, and the blessing that changes it (set, then clear).
struct CapabilityOracle { std::uint64_t mask; const char* printed; const char* blessing; std::uint64_t set, clear; };
inline constexpr CapabilityOracle CAPABILITY_ORACLE[] = {
    {0x1, "hdmi", "disable-hdmi", 0, 0xE00000000001}, {0x10, "ethernet", nullptr, 0, 0},
    {0x100, "gpio-connector", "disable-gpio-connector", 0, 0x100},
    {0x10000, "ir-blaster", "disable-ir-blaster", 0, 0x10000}, {0x30000000, "eac3", "eac3", 0x30000000, 0},
    {0x100000000, "srb-configured", nullptr, 0, 0},
    {0x1000000000, "internal-storage-only", "internal-storage-only", 0x1000000000, 0},
    {0x2000000000, "no-packet-capture", "disable-packet-capture", 0x2000000000, 0},
    {0x4000000000, "no-vxn-cloud", "disable-vxn-cloud", 0x4000000000, 0},
    {0x8000000000, "vxear", "vxear", 0x8000000000, 0},
    {0x10000000000, "no-lldp-reporting", "disable-lldp-reporting", 0x10000000000, 0},
    {0x20000000000, "no-usb-networking", "disable-usb-networking", 0x20000000000, 0},
    {0x80000000000, "blessings-applied", nullptr, 0, 0},
    {0x100000000000, "no-usb-storage", "disable-usb-storage", 0x100000000000, 0},
    {0xE00000000000, "hdmi-outputs", nullptr, 0, 0},
    {0x4000000000000, "clock-boost", "enable-clock-boost", 0x4000000000000, 0},
    {0x8000000000000, "eth1", "disable-eth1-interface", 0, 0x8000000000000},
    {0x20000000000000, "dws", "enable-dws", 0x20000000000000, 0}};

inline std::string FromHex(const std::string& hex)
{
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

// A device-data chunk whose SHA-1 comes from coreutils' sha1sum.
inline std::string Sha1sumChunk(const std::string& tag, const std::string& payload)
{
    const std::string sum = Run("/usr/bin/sha1sum", {}, payload).out.substr(0, 40);
    return tag + Le32(std::uint32_t(payload.size() + 20)) + payload + FromHex(sum);
}

// Paths of the committed test keys, e.g. TestPrivateKey("srb-1").
inline const std::string TEST_KEYS = VX_SOURCE_DIR "/keys/test/";
inline std::string TestPrivateKey(const std::string& name) { return TEST_KEYS + name + ".test-only.pem"; }
inline std::string TestPublicKey(const std::string& name) { return TEST_KEYS + name + ".pub.pem"; }

// Runs openssl with input on standard input; returns its output, throws when it fails.
inline std::string Openssl(const std::vector<std::string>& args, const std::string& input = {})
{
    const RunResult result = Run("/usr/bin/openssl", args, input);
    if (result.exit_status != 0)
        throw std::runtime_error("openssl failed: " + result.err);
    return result.out;
}

// A public key as the program stores its keys, a canonical S-expression:
// "(public-key(rsa(n <len>:<bytes>)(e <len>:<bytes>)))".
inline std::string CanonicalKey(const std::string& n, const std::string& e)
{
    const auto atom = [](const std::string& bytes) { return std::to_string(bytes.size()) + ":" + bytes; };
    return "(10:public-key(3:rsa(1:n" + atom(n) + ")(1:e" + atom(e) + ")))";
}

// The 298-byte canonical key of a PEM public key, from openssl's description.
inline std::string CanonicalPublicKey(const std::string& pem_path)
{
    const auto describe = [&](const char* what) {
        return Openssl({"rsa", "-pubin", "-in", pem_path, "-noout", what});
    };
    const std::string modulus = describe("-modulus").substr(8, 512); // after "Modulus="
    const std::string text = describe("-text");
    const unsigned long exponent = std::stoul(text.substr(text.find("Exponent: ") + 10));
    return CanonicalKey('\0' + FromHex(modulus), {char(exponent >> 16), char(exponent >> 8), char(exponent)});
}

// openssl dgst -sha256 -sign (raw signature) and -hmac (the 32 MAC bytes).
inline std::string OpensslSign(const std::string& private_key_path, const std::string& message)
{
    return Openssl({"dgst", "-sha256", "-sign", private_key_path, "-binary"}, message);
}
inline std::string OpensslHmacSha256(const std::string& key, const std::string& message)
{
    return Openssl({"dgst", "-sha256", "-hmac", key, "-binary"}, message);
}

// An SRB signature text made by openssl: "A" and the base64 of the PKCS#1
// v1.5 SHA-256 signature of the HMAC of message (the signed variables as
// "NAME\nVALUE\n", in name order) keyed with the Secure ID.
inline std::string OpensslSrbSignature(const std::string& key, const std::string& secure_id,
                                       const std::string& message)
{
    const std::vector<std::string> sign = {"pkeyutl", "-sign", "-inkey", TestPrivateKey(key),
                                           "-pkeyopt", "digest:sha256"};
    return "A" + Openssl({"base64", "-A"}, Openssl(sign, OpensslHmacSha256(secure_id, message)));
}

// A blessing payload signed by openssl: names, signature, and the parameter
// only when it is not empty.
inline std::string OpensslBlessingPayload(const std::string& key, const std::string& tag,
                                          const std::string& names, const std::string& parameter,
                                          const std::string& secure_id, const std::string& serial)
{
    const std::string optional = parameter.empty() ? "" : Field(parameter);
    const std::string message =
        Field(tag) + (tag == "BLES" ? Field(secure_id) + Field(serial) : "") + optional + Field(names);
    return Field(names) + Field(OpensslSign(TestPrivateKey(key), message)) + optional;
}

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

} // namespace vxtest

// Skips a test that signs with the committed test keys when the build stores
// others (the stored-key test checks that the build stores what it names).
#define VXTEST_REQUIRE_TEST_KEYS()                                                 \
    do {                                                                           \
        if (std::string(VX_PUBLIC_KEYS_DIR) != VX_SOURCE_DIR "/keys/test")         \
            GTEST_SKIP() << "the build stores keys other than keys/test";          \
    } while (0)
