#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "factory/records.h"
#include "factory/rsa_signer.h"
#include "hardware/blessings.h"
#include "hardware/signature_verifier.h"
#include "support/fake_nand.h"
#include "support/oracles.h"

namespace {

using Grants = std::vector<std::pair<std::string, std::string>>;
using vxtest::Field;

const std::string ID = "5ec0e1d05ec0e1d0";
const std::string SERIAL = "VX0000042";

// A payload signed by openssl over the message built here, with the
// parameter field only when the parameter is not empty.
std::string Payload(const std::string& key, const std::string& tag, const std::string& names,
                    const std::string& parameter = "", const std::string& serial = SERIAL)
{
    const std::string optional = parameter.empty() ? "" : Field(parameter);
    const std::string message =
        Field(tag) + (tag == "BLES" ? Field(ID) + Field(serial) : "") + optional + Field(names);
    const std::string signature = vxtest::OpensslSign(vxtest::TestPrivateKey(key), message);
    return Field(names) + Field(signature) + optional;
}

// Enumerates a partition of these chunks; returns what went to standard error.
std::string Enumerate(const std::vector<std::string>& chunks,
                      const blessings::BlessingHandler& handler, const std::string& secure_id = ID)
{
    auto nand = FakeNand::Create(8 * 0x20000, 0x20000);
    nand->PokeGood(EncodeDeviceDataImage(chunks));
    testing::internal::CaptureStderr();
    blessings::EnumerateBlessings(VeltrixDeviceDataStorageNand(nand), secure_id, SERIAL, handler);
    return testing::internal::GetCapturedStderr();
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
    Grants grants;
    const auto collect = [&](const std::string& name, const std::string& parameter) {
        if (name == "bad")
            throw std::runtime_error("handler refused bad");
        if (name == "odd")
            throw 42;
        grants.emplace_back(name, parameter);
    };
    EXPECT_EQ(Enumerate(chunks, collect),
              "Exception while checking blessings: Blessing not correctly signed\n"
              "Exception while checking blessings: Unable to write unsupported boon\n"
              "Exception while checking blessings: Bogus data after blessings signature\n"
              "Exception while checking blessings: Blessing not correctly signed\n"
              "Exception while checking blessings: handler refused bad\n"
              "Unknown exception while checking blessings\n");
    EXPECT_EQ(grants, (Grants{{"a", "p1"}, {"eac3", "p1"}, {"b", "p1"}, {"x", ""}, {"y", ""},
                              {"q", "p3"}, {"empty", ""}}));

    // On another device only the boons remain.
    grants.clear();
    Enumerate(chunks, collect, "5ec0e1d05ec0e1d1");
    EXPECT_EQ(grants, (Grants{{"x", ""}, {"y", ""}, {"empty", ""}}));
}

TEST(VerifyBlessing, MalformedPayloadsAndTheFactoryBuilder)
{
    const GcrySexp key_1 = LoadPublicKey(BlessingPublicKey1());
    const GcrySexp key_2 = LoadPublicKey(BlessingPublicKey2());
    const auto verify = [&](const std::string& tag, const std::string& payload) -> std::string {
        try {
            return blessings::VerifyBlessing(ID, SERIAL, tag, key_1, key_2, payload).first;
        } catch (const std::runtime_error& e) {
            return e.what();
        }
    };
    const std::string sig = Field(std::string(256, 's'));
    for (const std::string& payload : {std::string(), std::string("\x05", 1), Field("a"),
                                       Field("a") + sig.substr(0, 100), Field("a") + sig + "p"})
        EXPECT_EQ(verify("BLES", payload), "Incorrectly expressed string") << payload.size();
    EXPECT_EQ(verify("BLES", Field("a") + sig + Field("p") + "x"),
              "Bogus data after blessings signature");
    EXPECT_EQ(verify("BLES", Field("a") + sig + Field("p")), "Blessing not correctly signed");
    // The boon check comes before the signature and is a substring search.
    EXPECT_EQ(verify("BOON", Field("neac3x") + sig), "Unable to write unsupported boon");
    EXPECT_EQ(verify("BLES", Field("neac3x") + sig), "Blessing not correctly signed");

    VXTEST_REQUIRE_TEST_KEYS();
    const GcrySexp private_key = LoadPrivateKeyFile(vxtest::TestPrivateKey("blessing-2"));
    for (const auto& [tag, parameter] : {std::pair{"BLES", "4k"}, {"BLES", ""}, {"BOON", "x"}}) {
        const std::string payload =
            MakeBlessingPayload(tag, "n1:n2", parameter, ID, SERIAL, private_key);
        EXPECT_EQ(payload, Payload("blessing-2", tag, "n1:n2", parameter));
        EXPECT_EQ(verify(tag, payload), "n1:n2");
    }
    for (const auto& [tag, names] : {std::pair{"BOON", "a:eac3"}, {"CONF", "a"}, {"BLES", "::"}})
        EXPECT_THROW(MakeBlessingPayload(tag, names, "", ID, SERIAL, private_key),
                     std::invalid_argument);
}

} // namespace
