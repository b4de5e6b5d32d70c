#include <map>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "factory/records.h"
#include "factory/rsa_signer.h"
#include "hardware/srb.h"
#include "platform/base64.h"
#include "support/oracles.h"

namespace {

using Environment = std::map<std::string, std::string>;
using vxtest::OpensslHmacSha256;

const std::string ID = "0123456789abcdef0123456789abcdef";
const std::string FAILED = "SRB signature verification failed";

// A factory record with unsigned variables mixed in, and its signed message
// written out by hand: the signed variables in byte-wise name order.
const Environment FACTORY = {{"VX_SERIAL", "VX1234567"}, {"VX_HWREV", "B2"},
                             {"ETH0_HWADDR", "00:1b:2c:3d:4e:5f"}, {"VX_HWPROFILE", "default"},
                             {"SECURE_CHECKS", "1"}, {"bootdelay", "3"}};
const std::string FACTORY_MESSAGE =
    "ETH0_HWADDR\n00:1b:2c:3d:4e:5f\nVX_HWREV\nB2\nVX_SERIAL\nVX1234567\n";

// openssl's signature text: "A" and the base64 of a PKCS#1 v1.5 SHA-256
// signature of the HMAC keyed with the Secure ID.
std::string OpensslSrbSignature(const std::string& key)
{
    return "A" + corvid::base64::Encode(vxtest::Openssl(
                     {"pkeyutl", "-sign", "-inkey", vxtest::TestPrivateKey(key), "-pkeyopt",
                      "digest:sha256"},
                     OpensslHmacSha256(ID, FACTORY_MESSAGE)));
}

std::string Verify(const Environment& environment, const std::string& secure_id = ID)
try {
    VerifySrb(environment, secure_id);
    return "valid";
} catch (const std::runtime_error& e) {
    return e.what();
}

TEST(Srb, DigestIsTheOpensslHmacOverTheSignedVariablesAsStored)
{
    for (const char* name : {"vx_serial", "ETH0_HWADDR", "wlan0_hwaddr", "VX_SIGNATURE_0"})
        EXPECT_TRUE(IsSrbVariable(name)) << name;
    for (const char* name : {"SECURE_CHECKS", "ETH0_HWADDR2", "VX"})
        EXPECT_FALSE(IsSrbVariable(name)) << name;

    EXPECT_EQ(ComputeSrbDigest(FACTORY, ID), OpensslHmacSha256(ID, FACTORY_MESSAGE));
    // Names as stored, in byte-wise order (upper case sorts first).
    const Environment mixed = {
        {"vx_serial", "s"},     {"VX_HWPROFILE2", "p"},  {"VX_HWPROFILE", "q"},
        {"VX_SIGNATUREX", "x"}, {"VX_SIGNATURX", "y"},   {"VX_SIGNATURE_0", "A"},
        {"wlan0_hwaddr", "w"},  {"ETH0_HWADDR2", "e"},   {"zz", "z"}};
    EXPECT_EQ(ComputeSrbDigest(mixed, "id"),
              OpensslHmacSha256("id", "VX_HWPROFILE2\np\nVX_SIGNATURX\ny\n"
                                      "vx_serial\ns\nwlan0_hwaddr\nw\n"));
    EXPECT_EQ(ComputeSrbDigest({{"bootdelay", "3"}}, "id"), OpensslHmacSha256("id", ""));
}

TEST(Srb, VerifiesOnlyTheRecordSignedForThisDevice)
{
    VXTEST_REQUIRE_TEST_KEYS();
    const std::string sig = OpensslSrbSignature("srb-1");
    // Variables set on top of the unsigned factory record.
    const std::pair<Environment, std::string> cases[] = {
        {{{"VX_SIGNATURE", sig}}, "valid"},
        {{{"VX_SIGNATURE", OpensslSrbSignature("srb-2")}}, "valid"},
        {{{"VX_SIGNATURE", OpensslSrbSignature("blessing-1")}}, FAILED},
        {{{"VX_SIGNATURE", sig}, {"VX_SERIAL", "vx1234567"}}, FAILED},
        {{{"VX_SIGNATURE", sig}, {"ETH0_HWADDR", "00:1B:2c:3d:4e:5f"}}, FAILED},
        {{{"VX_SIGNATURE", sig}, {"VX_HWPROFILE", "x"}, {"SECURE_CHECKS", "0"},
          {"VX_SIGNATUREX", "x"}, {"VX_SIGNATURE_0", "junk"}}, "valid"},
        {{}, "SRB signature not found"},
        {{{"VX_SIGNATURE", ""}, {"VX_SIGNATURE_0", sig}}, "SRB signature not found"},
        {{{"VX_SIGNATURE_0", sig.substr(0, 200)}, {"VX_SIGNATURE_1", sig.substr(200)}}, "valid"},
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
        EXPECT_EQ(Verify(environment), cases[i].second) << "case " << i;
    }
    Environment signed_record = FACTORY;
    signed_record["VX_SIGNATURE"] = sig;
    EXPECT_EQ(Verify(signed_record, ID + "0"), FAILED);
    EXPECT_EQ(Verify(signed_record, ""), "No secure ID");
}

TEST(Srb, FactorySignerMatchesOpensslAndFillsEnvironmentRecords)
{
    VXTEST_REQUIRE_TEST_KEYS();
    const GcrySexp key = LoadPrivateKeyFile(vxtest::TestPrivateKey("srb-1"));
    const std::string text = SignSrb(FACTORY, ID, key);
    EXPECT_EQ(text, OpensslSrbSignature("srb-1"));
    using Variables = std::vector<std::pair<std::string, std::string>>;
    EXPECT_EQ(SrbSignatureVariables(text), (Variables{{"VX_SIGNATURE_0", text.substr(0, 239)},
                                                      {"VX_SIGNATURE_1", text.substr(239)}}));
    EXPECT_EQ(SrbSignatureVariables("Ashort"), (Variables{{"VX_SIGNATURE", "Ashort"}}));
}

} // namespace
