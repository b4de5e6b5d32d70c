// vxtool sign-srb, srb, bless and blessings run as programs: what the factory
// subcommands make is accepted by the player-side ones on the right device only.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/oracles.h"
#include "support/programs.h"

namespace {

using Args = std::vector<std::string>;
using vxtest::TestPrivateKey;
using vxtest::TestPublicKey;

const std::string ID = "a1b2c3d4e5f60718";
const std::string ERASE = "16384";

// The exit status, a space, then standard output and standard error.
std::string Vxtool(const Args& args, const Args& more = {}, const std::string& input = {})
{
    Args all = args;
    all.insert(all.end(), more.begin(), more.end());
    const vxtest::RunResult result = vxtest::Vxtool(all, input);
    return std::to_string(result.exit_status) + " " + result.out + result.err;
}

auto UsageError(const std::string& command, const std::string& message)
{
    return testing::StartsWith("2 vxtool " + command + ": " + message + "\nusage: ");
}

class VxtoolIdentity : public ::testing::Test {
protected:
    void SetUp() override { VXTEST_REQUIRE_TEST_KEYS(); }

    // sign-srb's output for the factory lines, and the source options (with
    // prefix) of an environment image of it whose first erase block is bad.
    Args SignedEnvironment(const std::string& key, const std::string& prefix)
    {
        m_signed = Vxtool({"sign-srb", "--key", TestPrivateKey(key), "--secure-id", ID}, {},
                          "VX_SERIAL=VX0000042\r\nVX_HWREV=B2\n\nVX_SIGNATURE=Aold\n"
                          "ETH0_HWADDR=00:1b:2c:3d:4e:5f\nVX_SIGNATURE_0=Aold\n").substr(2);
        const std::string block = m_dir.Path() + "/env.block";
        EXPECT_EQ(Vxtool({"mkenv", "--erase-size", ERASE, "-o", block}, {}, m_signed), "0 ");
        const std::string image =
            m_dir.WriteFile("env.img", std::string(16384, '\0') + vxtest::ReadFile(block));
        return {prefix + "image", image, prefix + "erase-size", ERASE, prefix + "bad-blocks", "0"};
    }

    vxtest::TempDir m_dir;
    std::string m_signed;
};

TEST_F(VxtoolIdentity, SignSrbReplacesTheSignatureAndSrbAcceptsItOnThisDeviceOnly)
{
    Args srb = SignedEnvironment("srb-2", "--");
    srb.insert(srb.begin(), "srb");
    const std::string head = "VX_SERIAL=VX0000042\nVX_HWREV=B2\nETH0_HWADDR=00:1b:2c:3d:4e:5f\n"
                             "VX_SIGNATURE_0=A";
    ASSERT_EQ(m_signed.substr(0, head.size()), head);

    const std::string boardid =
        m_dir.WriteFile("boardid", "ID: 0x3\nsecure-id: 00\nSecure-ID: " + ID + "\nSoC: x\n");
    EXPECT_EQ(Vxtool(srb, {"--secure-id", ID}), "0 valid\n");
    EXPECT_EQ(Vxtool(srb, {"--boardid", boardid}), "0 valid\n");
    EXPECT_EQ(Vxtool(srb, {"--secure-id", "a1b2c3d4e5f60719"}),
              "1 invalid: SRB signature verification failed\n");
    EXPECT_EQ(Vxtool(srb, {"--boardid", m_dir.WriteFile("other", "ID: 0x3\n")}),
              "1 invalid: No secure ID\n");
    EXPECT_EQ(Vxtool(srb, {"--boardid", m_dir.Path() + "/absent"}), "1 invalid: No secure ID\n");
    EXPECT_THAT(Vxtool(srb, {"--boardid", boardid, "--secure-id", ID}),
                UsageError("srb", "--secure-id and --boardid exclude each other"));
}

TEST_F(VxtoolIdentity, BlessMakesChunksAndBlessingsListsTheGrantsValidOnThisDevice)
{
    const auto bless = [&](const std::string& file, const Args& args) {
        const std::string path = m_dir.Path() + "/" + file;
        EXPECT_EQ(Vxtool({"bless", "--key", TestPrivateKey("blessing-1"), "-o", path}, args), "0 ");
        return path;
    };
    const std::string bound = bless("bound", {"--names", "eac3:hdr", "--parameter", "p",
                                              "--secure-id", ID, "--serial", "VX0000042"});
    const std::string other =
        bless("other", {"--names", "stolen", "--secure-id", ID, "--serial", "VX0000043"});
    const std::string boon = bless("boon", {"--names", "x", "--boon"});

    const std::string data = m_dir.Path() + "/devid.img";
    EXPECT_EQ(Vxtool({"mkdevdata", "--erase-size", ERASE, "-o", data}, {bound, other, boon}), "0 ");
    const Args list = {"blessings", "--image", data, "--erase-size", ERASE, "--secure-id", ID};
    const std::string refused = "Exception while checking blessings: Blessing not correctly signed";
    EXPECT_EQ(Vxtool(list, SignedEnvironment("srb-1", "--env-")),
              "0 eac3\tp\nhdr\tp\nx\t\n" + refused + "\n");
    EXPECT_EQ(Vxtool(list, {"--serial", "VX0000043"}), "0 stolen\t\nx\t\n" + refused + "\n");
    EXPECT_THAT(Vxtool(list),
                UsageError("blessings", "with --image, give --serial or an --env-image"));
}

TEST_F(VxtoolIdentity, FactoryCommandsRefuseWhatThePlayerWouldNotAccept)
{
    const std::string pub = TestPublicKey("blessing-1");
    const Args bless = {"bless", "--names", "eac3", "--boon", "-o", m_dir.Path() + "/chunk"};
    EXPECT_EQ(Vxtool(bless, {"--key", TestPrivateKey("blessing-1")}),
              "1 error: A boon cannot name eac3: the player refuses it\n");
    EXPECT_EQ(Vxtool(bless, {"--key", pub}),
              "1 error: " + pub + ": Invalid RSA private key: no PEM private key found\n");
    EXPECT_THAT(Vxtool(bless, {"--key", pub, "--serial", "1"}),
                UsageError("bless", "a boon is bound to no device: --boon excludes --secure-id "
                                    "and --serial"));
    const Args sign = {"sign-srb", "--secure-id", ID, "--key", TestPrivateKey("srb-1")};
    EXPECT_EQ(Vxtool(sign, {}, "A=1\nx\n"), "1 error: line 2: no '=' in 'x'\n");
}

} // namespace
