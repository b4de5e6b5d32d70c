#include <map>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "hardware/rsa_signer.h"
#include "hardware/srb.h"
#include "support/crypto_oracle.h"

namespace {

using Environment = std::map<std::string, std::string>;
using vxtest::Openssl;
using vxtest::TestPrivateKey;

const std::string SECURE_ID = "0123456789abcdef0123456789abcdef";

// A manufacturing record as the factory writes it, with the variables that
// are not signed mixed in.
Environment FactoryEnvironment()
{
    return {
        {"VX_SERIAL", "VX1234567"},
        {"VX_HWREV", "B2"},
        {"VX_HWFLAGS", "0x30000000"},
        {"VX_FORMAT", "3"},
        {"ETH0_HWADDR", "00:1b:2c:3d:4e:5f"},
        {"VX_HWPROFILE", "default"},
        {"SECURE_CHECKS", "1"},
        {"bootdelay", "3"},
    };
}

// The signed message written out by hand: every signed variable in byte-wise
// name order as "<name>\n<value>\n".
const std::string FACTORY_MESSAGE = "ETH0_HWADDR\n00:1b:2c:3d:4e:5f\n"
                                    "VX_FORMAT\n3\n"
                                    "VX_HWFLAGS\n0x30000000\n"
                                    "VX_HWREV\nB2\n"
                                    "VX_SERIAL\nVX1234567\n";

// The signature text openssl makes for a signed message and Secure ID:
// HMAC-SHA256 keyed with the Secure ID, signed as a SHA-256 digest.
std::string OpensslSrbSignature(const std::string& key, const std::string& message,
                                const std::string& secure_id)
{
    const std::string mac = vxtest::OpensslHmacSha256(secure_id, message);
    const std::string signature = Openssl(
        {"pkeyutl", "-sign", "-inkey", TestPrivateKey(key), "-pkeyopt", "digest:sha256"}, mac);
    std::string base64 = Openssl({"base64", "-A"}, signature);
    return "A" + base64;
}

std::string VerifyMessage(const Environment& environment, const std::string& secure_id)
{
    try {
        VerifySrb(environment, secure_id);
        return "valid";
    } catch (const std::runtime_error& e) {
        return e.what();
    }
}

TEST(Srb, VariableNamesThatAreSigned)
{
    for (const char* name : {"VX_SERIAL", "vx_serial", "Vx_", "ETH0_HWADDR", "eth0_hwaddr",
                             "WLAN0_HWADDR", "VX_HWPROFILE2", "VX_SIGNATURX"}) {
        EXPECT_TRUE(IsSrbVariable(name)) << name;
        EXPECT_TRUE(IsSignedSrbVariable(name)) << name;
    }
    for (const char* name : {"VX_SIGNATURE", "vx_signature_0", "VX_SIGNATUREX", "VX_HWPROFILE",
                             "vx_hwprofile"}) {
        EXPECT_TRUE(IsSrbVariable(name)) << name;
        EXPECT_FALSE(IsSignedSrbVariable(name)) << name;
    }
    for (const char* name : {"SECURE_CHECKS", "VX", "XVX_SERIAL", "ETH0_HWADDR2", "ETH1_HWADDR",
                             "WLAN0_HWADD", ""}) {
        EXPECT_FALSE(IsSrbVariable(name)) << name;
        EXPECT_FALSE(IsSignedSrbVariable(name)) << name;
    }
}

TEST(Srb, SplitVariableTakesTheWholeOrTheNumberedPartsUpToTheFirstGap)
{
    EXPECT_EQ(GetSplitVariable({}, "VX_SIGNATURE"), "");
    EXPECT_EQ(GetSplitVariable({{"VX_SIGNATURE_0", "ab"}, {"VX_SIGNATURE_1", "cd"},
                                {"VX_SIGNATURE_3", "gh"}}, "VX_SIGNATURE"), "abcd");
    EXPECT_EQ(GetSplitVariable({{"VX_SIGNATURE_0", "ab"}, {"VX_SIGNATURE_2", "ef"}},
                               "VX_SIGNATURE"), "ab");
    EXPECT_EQ(GetSplitVariable({{"VX_SIGNATURE_1", "cd"}}, "VX_SIGNATURE"), "");
    EXPECT_EQ(GetSplitVariable({{"VX_SIGNATURE", "whole"}, {"VX_SIGNATURE_0", "ab"}},
                               "VX_SIGNATURE"), "whole");
    EXPECT_EQ(GetSplitVariable({{"VX_SIGNATURE", ""}, {"VX_SIGNATURE_0", "ab"}},
                               "VX_SIGNATURE"), "");
}

TEST(Srb, DigestIsTheHmacOpensslComputesOverTheSignedVariables)
{
    EXPECT_EQ(ComputeSrbDigest(FactoryEnvironment(), SECURE_ID),
              vxtest::OpensslHmacSha256(SECURE_ID, FACTORY_MESSAGE));

    // Stored names are written as they are stored, in byte-wise order
    // (upper case sorts before lower case).
    const Environment mixed = {{"vx_serial", "s"}, {"VX_HWPROFILE2", "p"}, {"VX_SIGNATUREX", "x"},
                               {"WLAN0_HWADDR", "w"}, {"VX_SIGNATURE_0", "A"}, {"zz", "z"}};
    EXPECT_EQ(ComputeSrbDigest(mixed, "id"),
              vxtest::OpensslHmacSha256("id", "VX_HWPROFILE2\np\nWLAN0_HWADDR\nw\nvx_serial\ns\n"));

    EXPECT_EQ(ComputeSrbDigest({{"bootdelay", "3"}}, "id"), vxtest::OpensslHmacSha256("id", ""));
}

class SrbSigned : public ::testing::Test {
protected:
    void SetUp() override
    {
        VXTEST_REQUIRE_TEST_KEYS();
        m_environment = FactoryEnvironment();
        m_environment["VX_SIGNATURE"] = OpensslSrbSignature("srb-1", FACTORY_MESSAGE, SECURE_ID);
    }
    Environment m_environment;
};

TEST_F(SrbSigned, AnOpensslSignedRecordVerifiesWithEitherSrbKey)
{
    EXPECT_EQ(VerifyMessage(m_environment, SECURE_ID), "valid");
    m_environment["VX_SIGNATURE"] = OpensslSrbSignature("srb-2", FACTORY_MESSAGE, SECURE_ID);
    EXPECT_EQ(VerifyMessage(m_environment, SECURE_ID), "valid");
    // A blessing key is not an SRB signer.
    m_environment["VX_SIGNATURE"] = OpensslSrbSignature("blessing-1", FACTORY_MESSAGE, SECURE_ID);
    EXPECT_EQ(VerifyMessage(m_environment, SECURE_ID), "SRB signature verification failed");
}

TEST_F(SrbSigned, OnlyChangesToSignedVariablesBreakTheSignature)
{
    const auto changed = [&](const std::string& name, const std::string& value) {
        Environment environment = m_environment;
        environment[name] = value;
        return VerifyMessage(environment, SECURE_ID);
    };
    EXPECT_EQ(changed("VX_SERIAL", "vx1234567"), "SRB signature verification failed");
    EXPECT_EQ(changed("ETH0_HWADDR", "00:1B:2c:3d:4e:5f"), "SRB signature verification failed");
    EXPECT_EQ(changed("VX_OEM_ID", ""), "SRB signature verification failed");
    EXPECT_EQ(changed("vx_serial", "VX1234567"), "SRB signature verification failed");
    EXPECT_EQ(changed("VX_HWPROFILE2", "x"), "SRB signature verification failed");
    EXPECT_EQ(changed("VX_HWPROFILE", "other"), "valid");
    EXPECT_EQ(changed("SECURE_CHECKS", "0"), "valid");
    EXPECT_EQ(changed("VX_SIGNATUREX", "x"), "valid");
    EXPECT_EQ(changed("VX_SIGNATURE_0", "junk"), "valid");
    // Another device's Secure ID.
    EXPECT_EQ(VerifyMessage(m_environment, SECURE_ID + "0"), "SRB signature verification failed");
}

TEST_F(SrbSigned, SplitSignatureVerifiesAndAGapEndsIt)
{
    const std::string text = m_environment["VX_SIGNATURE"];
    ASSERT_EQ(text.size(), 345u);
    m_environment.erase("VX_SIGNATURE");
    m_environment["VX_SIGNATURE_0"] = text.substr(0, 200);
    m_environment["VX_SIGNATURE_1"] = text.substr(200);
    EXPECT_EQ(VerifyMessage(m_environment, SECURE_ID), "valid");

    m_environment["VX_SIGNATURE_2"] = m_environment["VX_SIGNATURE_1"];
    m_environment.erase("VX_SIGNATURE_1");
    // Only the first part is used: 199 characters of base64 are no whole text.
    EXPECT_EQ(VerifyMessage(m_environment, SECURE_ID),
              "Invalid base64 text: length is not a multiple of 4");
}

TEST_F(SrbSigned, EachWayOfBeingInvalidHasItsMessage)
{
    EXPECT_EQ(VerifyMessage(m_environment, ""), "No secure ID");

    Environment environment = m_environment;
    environment.erase("VX_SIGNATURE");
    EXPECT_EQ(VerifyMessage(environment, SECURE_ID), "SRB signature not found");
    environment["VX_SIGNATURE"] = "";
    environment["VX_SIGNATURE_0"] = m_environment["VX_SIGNATURE"];
    EXPECT_EQ(VerifyMessage(environment, SECURE_ID), "SRB signature not found");

    environment = m_environment;
    environment["VX_SIGNATURE"] = "A";
    EXPECT_EQ(VerifyMessage(environment, SECURE_ID), "SRB signature incomplete");
    environment["VX_SIGNATURE"] = "B" + m_environment["VX_SIGNATURE"].substr(1);
    EXPECT_EQ(VerifyMessage(environment, SECURE_ID), "Unsupported SRB signature");
    environment["VX_SIGNATURE"] = "a" + m_environment["VX_SIGNATURE"].substr(1);
    EXPECT_EQ(VerifyMessage(environment, SECURE_ID), "Unsupported SRB signature");
    environment["VX_SIGNATURE"] = "AAAAA";
    EXPECT_EQ(VerifyMessage(environment, SECURE_ID), "SRB signature verification failed");
    environment["VX_SIGNATURE"] = m_environment["VX_SIGNATURE"] + "\n";
    EXPECT_EQ(VerifyMessage(environment, SECURE_ID),
              "Invalid base64 text: length is not a multiple of 4");
}

TEST_F(SrbSigned, FactorySignerMatchesOpensslAndFitsEnvironmentRecords)
{
    const GcrySexp key = LoadPrivateKeyFile(TestPrivateKey("srb-1"));
    const std::string text = SignSrb(FactoryEnvironment(), SECURE_ID, key);
    EXPECT_EQ(text, m_environment["VX_SIGNATURE"]);

    const auto parts = SrbSignatureVariables(text);
    ASSERT_EQ(parts.size(), 2u);
    EXPECT_EQ(parts[0].first, "VX_SIGNATURE_0");
    EXPECT_EQ(parts[0].first.size() + 1 + parts[0].second.size(), 254u);
    EXPECT_EQ(parts[1].first, "VX_SIGNATURE_1");
    EXPECT_EQ(parts[0].second + parts[1].second, text);

    const auto whole = SrbSignatureVariables("Ashort");
    ASSERT_EQ(whole.size(), 1u);
    EXPECT_EQ(whole[0], std::make_pair(std::string("VX_SIGNATURE"), std::string("Ashort")));
    // With records of 20 characters, parts of 5 characters each.
    const auto small = SrbSignatureVariables("A123456789", 20);
    ASSERT_EQ(small.size(), 2u);
    EXPECT_EQ(small[1], std::make_pair(std::string("VX_SIGNATURE_1"), std::string("56789")));
}

} // namespace
