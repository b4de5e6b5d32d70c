#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "hardware/blessings.h"
#include "hardware/rsa_signer.h"
#include "hardware/signature_verifier.h"
#include "support/crypto_oracle.h"
#include "support/memory_nand.h"

namespace {

using Grants = std::vector<std::pair<std::string, std::string>>;
using vxtest::TestPrivateKey;

const std::string SECURE_ID = "5ec0e1d05ec0e1d0";
const std::string SERIAL = "VX0000042";

// A field as the records encode it, written out by hand.
std::string Field(const std::string& bytes)
{
    return std::string{static_cast<char>(bytes.size() & 0xFF),
                       static_cast<char>(bytes.size() >> 8)} + bytes;
}

// A record signed by openssl over the message built here. parameter_field
// decides how the payload carries the parameter: left out, or as a field
// (possibly of length 0).
std::string OpensslRecord(const std::string& key, const std::string& tag, const std::string& names,
                          const std::string& parameter, bool parameter_field,
                          const std::string& secure_id = SECURE_ID,
                          const std::string& serial = SERIAL)
{
    std::string message = Field(tag);
    if (tag == "BLES")
        message += Field(secure_id) + Field(serial);
    if (!parameter.empty())
        message += Field(parameter);
    message += Field(names);
    const std::string signature = vxtest::OpensslSign(TestPrivateKey(key), message);
    std::string payload = Field(names) + Field(signature);
    if (parameter_field)
        payload += Field(parameter);
    return payload;
}

class Blessings : public ::testing::Test {
protected:
    void SetUp() override { VXTEST_REQUIRE_TEST_KEYS(); }

    // Enumerates a partition made of these chunks; returns the grants and
    // keeps standard error in m_err.
    Grants Enumerate(const std::vector<std::string>& chunks, const std::string& secure_id = SECURE_ID,
                     const std::string& serial = SERIAL)
    {
        auto nand = MemoryNandAccess::Create(8 * 0x20000, 0x20000);
        nand->PokeGood(EncodeDeviceDataImage(chunks));
        const VeltrixDeviceDataStorageNand storage(nand);
        Grants grants;
        ::testing::internal::CaptureStderr();
        blessings::EnumerateBlessings(storage, secure_id, serial,
                                      [&](const std::string& name, const std::string& parameter) {
                                          grants.emplace_back(name, parameter);
                                      });
        m_err = ::testing::internal::GetCapturedStderr();
        return grants;
    }

    // The lines of standard error that report skipped records.
    std::vector<std::string> SkippedRecords() const
    {
        std::vector<std::string> lines;
        std::size_t begin = 0;
        while (begin < m_err.size()) {
            const std::size_t end = m_err.find('\n', begin);
            const std::string line = m_err.substr(begin, end - begin);
            if (line.find("blessings") != std::string::npos)
                lines.push_back(line);
            if (end == std::string::npos)
                break;
            begin = end + 1;
        }
        return lines;
    }

    std::string m_err;
};

TEST_F(Blessings, ValidRecordsGrantTheirNamesInFlashOrderAndBadOnesAreReported)
{
    std::string tampered = EncodeDeviceDataChunk(
        "BLES", OpensslRecord("blessing-1", "BLES", "tampered", "", false));
    tampered[12] ^= 0x20;
    const std::vector<std::string> chunks = {
        EncodeDeviceDataChunk("BLES", OpensslRecord("blessing-1", "BLES", "a:eac3:b", "p1", true)),
        EncodeDeviceDataChunk("CONF", "not a blessing"),
        tampered,
        EncodeDeviceDataChunk("BOON", OpensslRecord("blessing-2", "BOON", "x::y:", "", false)),
        EncodeDeviceDataChunk("BLES", OpensslRecord("blessing-1", "BLES", "other", "", false,
                                                    SECURE_ID, "VX0000043")),
        EncodeDeviceDataChunk("BOON", OpensslRecord("blessing-1", "BOON", "c:eac3", "", false)),
        EncodeDeviceDataChunk("BOON", OpensslRecord("blessing-1", "BOON", "d", "p2", true) + "!"),
        EncodeDeviceDataChunk("BOON", OpensslRecord("srb-1", "BOON", "e", "", false)),
        EncodeDeviceDataChunk("BLES", OpensslRecord("blessing-2", "BLES", "z", "p3", true)),
    };
    EXPECT_EQ(Enumerate(chunks), (Grants{{"a", "p1"}, {"eac3", "p1"}, {"b", "p1"}, {"x", ""},
                                         {"y", ""}, {"z", "p3"}}));
    EXPECT_EQ(SkippedRecords(), (std::vector<std::string>{
                                    "Exception while checking blessings: Blessing not correctly signed",
                                    "Exception while checking blessings: Unable to write unsupported boon",
                                    "Exception while checking blessings: Bogus data after blessings signature",
                                    "Exception while checking blessings: Blessing not correctly signed",
                                }));
    EXPECT_NE(m_err.find("Veltrix device data chunk failed integrity check\n"), std::string::npos);
}

TEST_F(Blessings, ABlessingIsBoundToSecureIdAndSerialButABoonIsNot)
{
    const std::vector<std::string> chunks = {
        EncodeDeviceDataChunk("BLES", OpensslRecord("blessing-1", "BLES", "bound", "", false)),
        EncodeDeviceDataChunk("BOON", OpensslRecord("blessing-1", "BOON", "free", "", false)),
    };
    EXPECT_EQ(Enumerate(chunks), (Grants{{"bound", ""}, {"free", ""}}));
    EXPECT_EQ(Enumerate(chunks, "5ec0e1d05ec0e1d1"), (Grants{{"free", ""}}));
    EXPECT_EQ(Enumerate(chunks, SECURE_ID, ""), (Grants{{"free", ""}}));
    EXPECT_EQ(SkippedRecords(), (std::vector<std::string>{
                                    "Exception while checking blessings: Blessing not correctly signed"}));
}

TEST_F(Blessings, AnEmptyParameterFieldIsTheSameAsNone)
{
    const std::vector<std::string> chunks = {
        EncodeDeviceDataChunk("BLES", OpensslRecord("blessing-2", "BLES", "one", "", true)),
        EncodeDeviceDataChunk("BOON", OpensslRecord("blessing-2", "BOON", "two", "", true)),
    };
    EXPECT_EQ(Enumerate(chunks), (Grants{{"one", ""}, {"two", ""}}));
    EXPECT_EQ(m_err, "");
}

TEST_F(Blessings, AThrowingHandlerLosesOnlyTheRestOfThatRecord)
{
    auto nand = MemoryNandAccess::Create(4 * 0x20000, 0x20000);
    nand->PokeGood(EncodeDeviceDataImage({
        EncodeDeviceDataChunk("BLES", OpensslRecord("blessing-1", "BLES", "a:bad:c", "", false)),
        EncodeDeviceDataChunk("BOON", OpensslRecord("blessing-1", "BOON", "odd:d", "", false)),
        EncodeDeviceDataChunk("BOON", OpensslRecord("blessing-1", "BOON", "e", "", false)),
    }));
    const VeltrixDeviceDataStorageNand storage(nand);
    std::vector<std::string> names;
    ::testing::internal::CaptureStderr();
    blessings::EnumerateBlessings(storage, SECURE_ID, SERIAL,
                                  [&](const std::string& name, const std::string&) {
                                      if (name == "bad")
                                          throw std::runtime_error("handler refused bad");
                                      if (name == "odd")
                                          throw 42;
                                      names.push_back(name);
                                  });
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "Exception while checking blessings: handler refused bad\n"
              "Unknown exception while checking blessings\n");
    EXPECT_EQ(names, (std::vector<std::string>{"a", "e"}));
}

TEST(VerifyBlessing, MalformedPayloads)
{
    const GcrySexp key_1 = LoadPublicKey(BlessingPublicKey1());
    const GcrySexp key_2 = LoadPublicKey(BlessingPublicKey2());
    const auto verify = [&](const std::string& tag, const std::string& payload) {
        try {
            blessings::VerifyBlessing(SECURE_ID, SERIAL, tag, key_1, key_2, payload);
            return std::string("verified");
        } catch (const std::runtime_error& e) {
            return std::string(e.what());
        }
    };
    const std::string signature(256, 's');
    EXPECT_EQ(verify("BLES", ""), "Incorrectly expressed string");
    EXPECT_EQ(verify("BLES", std::string("\x05", 1)), "Incorrectly expressed string");
    EXPECT_EQ(verify("BLES", Field("a").substr(0, 2)), "Incorrectly expressed string");
    EXPECT_EQ(verify("BLES", Field("a")), "Incorrectly expressed string");
    EXPECT_EQ(verify("BLES", Field("a") + Field(signature).substr(0, 100)),
              "Incorrectly expressed string");
    EXPECT_EQ(verify("BLES", Field("a") + Field(signature) + "p"), "Incorrectly expressed string");
    EXPECT_EQ(verify("BLES", Field("a") + Field(signature) + Field("p") + "x"),
              "Bogus data after blessings signature");
    EXPECT_EQ(verify("BLES", Field("a") + Field(signature) + Field("p")),
              "Blessing not correctly signed");
    EXPECT_EQ(verify("BLES", Field("a") + Field("")), "Blessing not correctly signed");
    // The boon check comes before the signature and is a substring search.
    EXPECT_EQ(verify("BOON", Field("neac3x") + Field(signature)), "Unable to write unsupported boon");
    EXPECT_EQ(verify("BLES", Field("neac3x") + Field(signature)), "Blessing not correctly signed");
}

TEST(MakeBlessingPayload, SignsLikeOpensslAndVerifies)
{
    VXTEST_REQUIRE_TEST_KEYS();
    const GcrySexp private_key = LoadPrivateKeyFile(TestPrivateKey("blessing-2"));
    const GcrySexp key_1 = LoadPublicKey(BlessingPublicKey1());
    const GcrySexp key_2 = LoadPublicKey(BlessingPublicKey2());
    for (const auto& [tag, parameter] : {std::pair<std::string, std::string>{"BLES", "4k"},
                                         {"BLES", ""}, {"BOON", "x"}, {"BOON", ""}}) {
        const std::string payload =
            blessings::MakeBlessingPayload(tag, "n1:n2", parameter, SECURE_ID, SERIAL, private_key);
        EXPECT_EQ(payload, OpensslRecord("blessing-2", tag, "n1:n2", parameter, !parameter.empty()))
            << tag << " " << parameter;
        EXPECT_EQ(blessings::VerifyBlessing(SECURE_ID, SERIAL, tag, key_1, key_2, payload),
                  std::make_pair(std::string("n1:n2"), parameter));
    }
    EXPECT_THROW(blessings::MakeBlessingPayload("BOON", "a:eac3", "", "", "", private_key),
                 std::invalid_argument);
    EXPECT_THROW(blessings::MakeBlessingPayload("CONF", "a", "", "", "", private_key),
                 std::invalid_argument);
    EXPECT_THROW(blessings::MakeBlessingPayload("BLES", "::", "", SECURE_ID, SERIAL, private_key),
                 std::invalid_argument);
}

} // namespace
