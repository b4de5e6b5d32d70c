// The device's identity: the board identity, signatures (with Wycheproof's
// known-answer vectors) and stored keys, the signed manufacturing record
// (SRB) and blessings.
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <map>
#include <stdexcept>
#include <tuple>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "factory/partition_layout.h"
#include "factory/records.h"
#include "factory/rsa_signer.h"
#include "hardware/blessings.h"
#include "hardware/board_id.h"
#include "hardware/signature_verifier.h"
#include "hardware/srb.h"
#include "platform/base64.h"
#include "platform/handles.h"
#include "support/oracles.h"

namespace {

using vxtest::Field;
using vxtest::OpensslHmacSha256;
using vxtest::OpensslSign;
using vxtest::TestPrivateKey;
using vxtest::WhatOf;

const std::string ID = "5ec0e1d05ec0e1d0"; // the Secure ID of the device

// A stream that delivers the text, then fails with EIO.
ssize_t ReadThenFail(void* cookie, char* buffer, std::size_t size)
{
    const std::size_t n = static_cast<std::string*>(cookie)->copy(buffer, size);
    static_cast<std::string*>(cookie)->erase(0, n);
    errno = EIO;
    return n ? ssize_t(n) : -1;
}

TEST(ReadBoardId, TheKeysOfTheTableAsFscanfReadsThemUpToAReadError)
{
    vxtest::TempDir dir;
    const BoardIdentity id = ReadBoardId(dir.WriteFile(
        "boardid", "ID: 0x42\nFamily: vx4\nBOLT-version: v1.20\nBootloader-version: 4.2.1\n"
                   "Secure-keys: 0x1\nSecure-boot: 0\nsecure-id: lower\nSecure-ID: "
                   "5ec1d0000000c0de\nSoC: bcm\nID: 7 Family: v" + std::string(70, 'x') + "\n"));
    EXPECT_EQ(id.id, 7);
    // A value longer than 64 characters is read in two pieces: the rest
    // becomes the next key, and the pairs go on out of step.
    EXPECT_EQ(id.family, "v" + std::string(63, 'x'));
    EXPECT_EQ(id.bolt_version + " " + id.bootloader_version + " " + id.soc + " " + id.secure_id,
              "v1.20 4.2.1 bcm 5ec1d0000000c0de");
    EXPECT_TRUE(id.secure_keys && !id.secure_boot);
    EXPECT_EQ(WhatOf([&] { ReadBoardId(dir.Path() + "/none"); }),
              dir.Path() + "/none: No such file or directory (errno 2)");
    // A read error ends the scan; the pairs read stay.
    const std::tuple<std::string, std::int64_t, std::string> cases[] = {
        {"ID: 0x42\nSecure-ID: abc\n", 0x42, "abc"}, {"ID: 0x42\nSecure-", 0x42, ""}, {"", -1, ""}};
    for (auto [text, number, secure_id] : cases) { // the end-of-file probe, a pair cut short, the first read
        const corvid::UniqueFile file(fopencookie(&text, "r", {ReadThenFail, nullptr, nullptr, nullptr}));
        const BoardIdentity read = ReadBoardId(file.Get());
        EXPECT_EQ(std::tie(read.id, read.secure_id), std::tie(number, secure_id));
    }
}

// A test key's canonical bytes parsed as the program parses its stored keys.
GcrySexp TestKey(const std::string& name, std::size_t break_at = 298)
{
    std::string bytes = vxtest::CanonicalPublicKey(vxtest::TestPublicKey(name));
    if (break_at < bytes.size())
        bytes[break_at] = 'x';
    return LoadPublicKey(StoredKey(reinterpret_cast<const std::uint8_t*>(bytes.data()), 298));
}

TEST(Libgcrypt, StoredKeysAreTheConfiguredPemKeysAndTheVersionIsPinned)
{
    for (const auto& [key, name] : {std::pair{SrbPublicKey1(), "srb-1"}, {SrbPublicKey2(), "srb-2"},
                                    {BlessingPublicKey1(), "blessing-1"},
                                    {BlessingPublicKey2(), "blessing-2"}}) {
        const std::string pem = VX_PUBLIC_KEYS_DIR + ("/" + std::string(name)) + ".pub.pem";
        EXPECT_EQ(std::string(key.begin(), key.end()), vxtest::CanonicalPublicKey(pem));
        EXPECT_EQ(gcry_pk_get_nbits(LoadPublicKey(key).get()), 2048u) << name;
    }
    EXPECT_EQ(WhatOf([] { TestKey("srb-1", 297); }), // the last closing parenthesis broken
              gcry_strerror(GPG_ERR_SEXP_UNMATCHED_PAREN));
    // The library is the version built against, or newer.
    EXPECT_EQ(WhatOf([] { CheckGcryptVersion("99.0.0"); }), "Incorrect libgcrypt version. Expected 99.0.0");
}

TEST(Signatures, SignDigestSignsLikeOpensslAndVerifySignatureChecksAlgorithmAndLength)
{
    const std::string pem = TestPrivateKey("blessing-2");
    const std::string digest = vxtest::Openssl({"dgst", "-sha256", "-binary"}, "record");
    const std::string signature = OpensslSign(pem, "record");
    const std::string pkcs1 = vxtest::Openssl({"rsa", "-in", pem, "-traditional"});
    ASSERT_NE(pkcs1.find("BEGIN RSA PRIVATE KEY"), std::string::npos);
    for (const GcrySexp& key : {LoadPrivateKeyFile(pem), LoadPrivateKeyPem(pkcs1)})
        EXPECT_EQ(SignDigest(key, GCRY_MD_SHA256, digest), signature);

    // Other keys and digests are the SRB and blessing tests' part.
    const GcrySexp key = TestKey("blessing-2");
    EXPECT_TRUE(VerifySignature(key, GCRY_MD_SHA256, digest, signature));
    EXPECT_FALSE(VerifySignature(key, GCRY_MD_SHA3_256, digest, signature));
    // Longer than the modulus: refused, zeros in front or not, and a field
    // of 64 KiB (which makes libgcrypt abort the process) never reaches it.
    // Values at or above the modulus are the known-answer vectors' part.
    for (const std::string& bad : {std::string(), signature.substr(1), signature + '\0',
                                   std::string(3, '\0') + signature, std::string(70000, '\x01')})
        EXPECT_FALSE(VerifySignature(key, GCRY_MD_SHA256, digest, bad)) << bad.size();
    // Shorter than the digest: false before libgcrypt is asked, even without a key.
    EXPECT_FALSE(VerifySignature(GcrySexp(), GCRY_MD_SHA256, digest, signature.substr(0, 31)));
}

// Known-answer vectors: each vector's public key in the stored keys' form,
// its message hashed with SHA-256, and VerifySignature's verdict against
// Wycheproof's.
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
        const std::string key_text = vxtest::CanonicalKey(vxtest::FromHex(group.at("publicKey").at("modulus")),
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

using Environment = std::map<std::string, std::string>;

const std::string FAILED = "SRB signature verification failed", VALID = "no exception";

// A factory record with unsigned variables mixed in, and its signed message
// written out by hand: the signed variables in byte-wise name order.
const Environment FACTORY = {{"VX_SERIAL", "VX1234567"}, {"VX_HWREV", "B2"},
                             {"ETH0_HWADDR", "00:1b:2c:3d:4e:5f"}, {"VX_HWPROFILE", "default"},
                             {"SECURE_CHECKS", "1"}, {"bootdelay", "3"}};
const std::string FACTORY_MESSAGE =
    "ETH0_HWADDR\n00:1b:2c:3d:4e:5f\nVX_HWREV\nB2\nVX_SERIAL\nVX1234567\n";

std::string OpensslSrbSignature(const std::string& key)
{
    return vxtest::OpensslSrbSignature(key, ID, FACTORY_MESSAGE);
}

TEST(Srb, DigestIsTheOpensslHmacOverTheSignedVariablesAsStored)
{
    // Names as stored, in byte-wise order (upper case sorts first).
    const Environment mixed = {
        {"vx_serial", "s"},     {"VX_HWPROFILE2", "p"},  {"VX_HWPROFILE", "q"},
        {"VX_SIGNATUREX", "x"}, {"VX_SIGNATURX", "y"},   {"VX_SIGNATURE_0", "A"},
        {"wlan0_hwaddr", "w"},  {"ETH0_HWADDR2", "e"},   {"zz", "z"}};
    EXPECT_EQ(ComputeSrbDigest(mixed, "id"),
              OpensslHmacSha256("id", "VX_HWPROFILE2\np\nVX_SIGNATURX\ny\n"
                                      "vx_serial\ns\nwlan0_hwaddr\nw\n"));
}

TEST(Srb, VerifiesOnlyTheRecordSignedForThisDevice)
{
    VXTEST_REQUIRE_TEST_KEYS();
    const std::string sig = OpensslSrbSignature("srb-1");
    // Variables set on top of the unsigned factory record.
    const std::pair<Environment, std::string> cases[] = {
        {{{"VX_SIGNATURE", sig}}, VALID},
        {{{"VX_SIGNATURE", OpensslSrbSignature("blessing-1")}}, FAILED},
        {{{"VX_SIGNATURE", sig}, {"VX_SERIAL", "vx1234567"}}, FAILED},
        {{{"VX_SIGNATURE", sig}, {"ETH0_HWADDR", "00:1B:2c:3d:4e:5f"}}, FAILED},
        {{{"VX_SIGNATURE", sig}, {"VX_HWPROFILE", "x"}, {"SECURE_CHECKS", "0"},
          {"VX_SIGNATUREX", "x"}, {"VX_SIGNATURE_0", "junk"}}, VALID},
        {{{"VX_SIGNATURE", ""}, {"VX_SIGNATURE_0", sig}}, "SRB signature not found"},
        {{{"VX_SIGNATURE_0", sig.substr(0, 200)}, {"VX_SIGNATURE_1", sig.substr(200)}}, VALID},
        // A gap ends the parts: 199 characters of base64 are no whole text.
        {{{"VX_SIGNATURE_0", sig.substr(0, 200)}, {"VX_SIGNATURE_2", sig.substr(200)}},
         "Invalid base64 text: length is not a multiple of 4"},
        {{{"VX_SIGNATURE", "A"}}, "SRB signature incomplete"},
        {{{"VX_SIGNATURE", "B" + sig.substr(1)}}, "Unsupported SRB signature"},
        {{{"VX_SIGNATURE", "AAAAA"}}, FAILED},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        Environment environment = FACTORY;
        for (const auto& [name, value] : cases[i].first)
            environment[name] = value;
        EXPECT_EQ(WhatOf([&] { VerifySrb(environment, ID); }), cases[i].second) << "case " << i;
    }
    Environment signed_record = FACTORY;
    signed_record["VX_SIGNATURE"] = sig;
    EXPECT_EQ(WhatOf([&] { VerifySrb(signed_record, ID + "0"); }), FAILED);
}

using Grants = std::vector<std::pair<std::string, std::string>>;

const std::string SERIAL = "VX0000042";

std::string Payload(const std::string& key, const std::string& tag, const std::string& names,
                    const std::string& parameter = "", const std::string& serial = SERIAL)
{
    return vxtest::OpensslBlessingPayload(key, tag, names, parameter, ID, serial);
}

TEST(Blessings, ValidRecordsGrantTheirNamesInFlashOrderAndBadOnesAreReported)
{
    VXTEST_REQUIRE_TEST_KEYS();
    const std::vector<std::string> chunks = {
        EncodeDeviceDataChunk("BLES", Payload("blessing-1", "BLES", "a:eac3:b", "p1")),
        EncodeDeviceDataChunk("CONF", "not a blessing"),
        EncodeDeviceDataChunk("BOON", Payload("blessing-2", "BOON", "x::y:")),
        EncodeDeviceDataChunk("BLES", Payload("blessing-1", "BLES", "other", "", "VX0000043")),
        EncodeDeviceDataChunk("BOON", Payload("blessing-1", "BOON", "c:eac3")),
        EncodeDeviceDataChunk("BOON", Payload("blessing-1", "BOON", "d", "p2") + "!"),
        EncodeDeviceDataChunk("BOON", Payload("srb-1", "BOON", "e")),
        EncodeDeviceDataChunk("BLES", Payload("blessing-2", "BLES", "q:bad:c", "p3")),
        EncodeDeviceDataChunk("BOON", Payload("blessing-1", "BOON", "odd:f")),
        // An empty third field reads as no parameter.
        EncodeDeviceDataChunk("BOON", Payload("blessing-2", "BOON", "empty") + Field("")),
    };
    auto nand = std::make_shared<MemoryNand>(8 * 0x20000, 0x20000);
    nand->Put(0, EncodeDeviceDataImage(chunks));
    // The grants, and standard error, of an enumeration for a device.
    const auto enumerate = [&](const std::string& secure_id, Grants& grants) {
        testing::internal::CaptureStderr();
        blessings::EnumerateBlessings(VeltrixDeviceDataStorageNand(nand), secure_id, SERIAL,
                                      [&](const std::string& name, const std::string& parameter) {
                                          if (name == "bad")
                                              throw std::runtime_error("handler refused bad");
                                          if (name == "odd")
                                              throw 42;
                                          grants.emplace_back(name, parameter);
                                      });
        return testing::internal::GetCapturedStderr();
    };
    Grants grants, elsewhere;
    EXPECT_EQ(enumerate(ID, grants),
              "Exception while checking blessings: Blessing not correctly signed\n"
              "Exception while checking blessings: Unable to write unsupported boon\n"
              "Exception while checking blessings: Bogus data after blessings signature\n"
              "Exception while checking blessings: Blessing not correctly signed\n"
              "Exception while checking blessings: handler refused bad\n"
              "Unknown exception while checking blessings\n");
    EXPECT_EQ(grants, (Grants{{"a", "p1"}, {"eac3", "p1"}, {"b", "p1"}, {"x", ""}, {"y", ""},
                              {"q", "p3"}, {"empty", ""}}));
    // On another device only the boons remain.
    enumerate("5ec0e1d05ec0e1d1", elsewhere);
    EXPECT_EQ(elsewhere, (Grants{{"x", ""}, {"y", ""}, {"empty", ""}}));
}

TEST(VerifyBlessing, MalformedPayloadsAndTheFactoryBuilder)
{
    const GcrySexp key_1 = LoadPublicKey(BlessingPublicKey1());
    const GcrySexp key_2 = LoadPublicKey(BlessingPublicKey2());
    const auto verify = [&](const std::string& tag, const std::string& payload) {
        return WhatOf([&] { blessings::VerifyBlessing(ID, SERIAL, tag, key_1, key_2, payload); });
    };
    const std::string sig = Field(std::string(256, 's'));
    for (const std::string& payload : {std::string(), std::string("\x05", 1), Field("a"),
                                       Field("a") + sig.substr(0, 100), Field("a") + sig + "p"})
        EXPECT_EQ(verify("BLES", payload), "Incorrectly expressed string") << payload.size();
    // The boon check comes before the signature and is a substring search,
    // in any case: capabilities are matched ignoring case.
    for (const char* names : {"neac3x", "EAC3", "a:eAc3"})
        EXPECT_EQ(verify("BOON", Field(names) + sig), "Unable to write unsupported boon") << names;
    EXPECT_EQ(verify("BLES", Field("neac3x") + sig), "Blessing not correctly signed");

    VXTEST_REQUIRE_TEST_KEYS();
    const GcrySexp private_key = LoadPrivateKeyFile(TestPrivateKey("blessing-2"));
    for (const auto& [tag, parameter] : {std::pair{"BLES", "4k"}, {"BLES", ""}, {"BOON", "x"}})
        EXPECT_EQ(MakeBlessingPayload(tag, "n1:n2", parameter, ID, SERIAL, private_key),
                  Payload("blessing-2", tag, "n1:n2", parameter));
    for (const auto& [tag, names] : {std::pair{"BOON", "a:eac3"}, {"BOON", "EAC3"}, {"CONF", "a"}, {"BLES", "::"}})
        EXPECT_THROW(MakeBlessingPayload(tag, names, "", ID, SERIAL, private_key),
                     std::invalid_argument);
}

} // namespace
