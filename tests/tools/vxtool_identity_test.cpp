// vxtool sign-srb, srb, bless and blessings, run as programs: records made
// by the factory subcommands are checked with openssl and then accepted by
// the player-side subcommands.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/crypto_oracle.h"
#include "support/sandbox.h"

namespace {

using vxtest::Openssl;
using vxtest::RunProgram;
using vxtest::RunResult;
using vxtest::TestPrivateKey;
using vxtest::TestPublicKey;

const std::string ERASE_SIZE = "16384";
const std::string SECURE_ID = "a1b2c3d4e5f60718";

RunResult Vxtool(const std::vector<std::string>& args, const std::string& input = {})
{
    return RunProgram(VX_VXTOOL_PATH, args, input);
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = text.find('\n', begin);
        lines.push_back(text.substr(begin, end - begin));
        if (end == std::string::npos)
            break;
        begin = end + 1;
    }
    return lines;
}

std::string Field(const std::string& bytes)
{
    return std::string{static_cast<char>(bytes.size() & 0xFF),
                       static_cast<char>(bytes.size() >> 8)} + bytes;
}

class VxtoolIdentity : public ::testing::Test {
protected:
    void SetUp() override { VXTEST_REQUIRE_TEST_KEYS(); }

    // Signs the lines with sign-srb and builds an environment image whose
    // first erase block is bad, the environment in the second.
    std::string SignedEnvironmentImage(const std::string& lines, const std::string& key = "srb-1")
    {
        const RunResult signed_lines =
            Vxtool({"sign-srb", "--key", TestPrivateKey(key), "--secure-id", SECURE_ID}, lines);
        EXPECT_EQ(signed_lines.exit_status, 0) << signed_lines.err;
        m_signed = signed_lines.out;
        const std::string block = m_dir.Path() + "/env.block";
        const RunResult made =
            Vxtool({"mkenv", "--erase-size", ERASE_SIZE, "-o", block}, signed_lines.out);
        EXPECT_EQ(made.exit_status, 0) << made.err;
        return m_dir.WriteFile("env.img", std::string(16384, '\0') + vxtest::ReadFile(block));
    }

    std::vector<std::string> EnvImageArgs(const std::string& image, const std::string& prefix = "--")
    {
        return {prefix + "image", image, prefix + "erase-size", ERASE_SIZE, prefix + "bad-blocks",
                "0"};
    }

    RunResult Srb(const std::string& image, const std::vector<std::string>& extra)
    {
        std::vector<std::string> args = {"srb"};
        for (const auto& a : EnvImageArgs(image))
            args.push_back(a);
        args.insert(args.end(), extra.begin(), extra.end());
        return Vxtool(args);
    }

    vxtest::TempDir m_dir;
    std::string m_signed;
};

const std::string FACTORY_LINES = "VX_SERIAL=VX0000042\r\n"
                                  "VX_HWREV=B2\n"
                                  "\n"
                                  "VX_SIGNATURE=Aold\n"
                                  "ETH0_HWADDR=00:1b:2c:3d:4e:5f\n"
                                  "VX_SIGNATURE_0=Aold\n"
                                  "SECURE_CHECKS=1\n";

TEST_F(VxtoolIdentity, SignSrbWritesSplitSignatureThatOpensslVerifies)
{
    SignedEnvironmentImage(FACTORY_LINES, "srb-2");
    const std::vector<std::string> lines = Lines(m_signed);
    ASSERT_EQ(lines.size(), 6u) << m_signed;
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 4),
              (std::vector<std::string>{"VX_SERIAL=VX0000042", "VX_HWREV=B2",
                                        "ETH0_HWADDR=00:1b:2c:3d:4e:5f", "SECURE_CHECKS=1"}));
    ASSERT_EQ(lines[4].rfind("VX_SIGNATURE_0=A", 0), 0u);
    ASSERT_EQ(lines[5].rfind("VX_SIGNATURE_1=", 0), 0u);
    EXPECT_EQ(lines[4].size(), 254u);
    const std::string base64 = lines[4].substr(16) + lines[5].substr(15);

    // The signature is a PKCS#1 v1.5 SHA-256 signature of the HMAC of the
    // signed variables, keyed with the Secure ID.
    const std::string mac = vxtest::OpensslHmacSha256(
        SECURE_ID, "ETH0_HWADDR\n00:1b:2c:3d:4e:5f\nVX_HWREV\nB2\nVX_SERIAL\nVX0000042\n");
    const std::string signature_file =
        m_dir.WriteFile("sig", Openssl({"base64", "-d", "-A"}, base64));
    const std::string verified =
        Openssl({"pkeyutl", "-verify", "-pubin", "-inkey", TestPublicKey("srb-2"), "-pkeyopt",
                 "digest:sha256", "-sigfile", signature_file},
                mac);
    EXPECT_EQ(verified, "Signature Verified Successfully\n");
}

TEST_F(VxtoolIdentity, SrbReportsValidOrTheReason)
{
    const std::string image = SignedEnvironmentImage(FACTORY_LINES);
    RunResult result = Srb(image, {"--secure-id", SECURE_ID});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out, "valid\n");
    EXPECT_EQ(result.err, "");

    result = Srb(image, {"--secure-id", "a1b2c3d4e5f60719"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, "invalid: SRB signature verification failed\n");

    const std::string unsigned_image = m_dir.Path() + "/unsigned.block";
    ASSERT_EQ(Vxtool({"mkenv", "--erase-size", ERASE_SIZE, "-o", unsigned_image}, "VX_SERIAL=1\n")
                  .exit_status, 0);
    result = Vxtool({"srb", "--image", unsigned_image, "--erase-size", ERASE_SIZE, "--secure-id",
                     SECURE_ID});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, "invalid: SRB signature not found\n");
}

TEST_F(VxtoolIdentity, SrbTakesTheSecureIdFromTheBoardIdentity)
{
    const std::string image = SignedEnvironmentImage(FACTORY_LINES);
    // Read as the player reads it: the value of the exact key "Secure-ID:",
    // other keys ignored.
    const std::string boardid = m_dir.WriteFile(
        "boardid", "ID: 0x3\nFamily: vx\nsecure-id: 00\nSecure-ID: " + SECURE_ID + "\nSoC: bcm\n");
    RunResult result = Srb(image, {"--boardid", boardid});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out, "valid\n");

    result = Srb(image, {"--boardid", m_dir.WriteFile("boardid2", "ID: 0x3\nFamily: vx\n")});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, "invalid: No secure ID\n");

    result = Srb(image, {"--boardid", m_dir.Path() + "/absent"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, "invalid: No secure ID\n");

    EXPECT_EQ(Srb(image, {"--boardid", boardid, "--secure-id", SECURE_ID}).exit_status, 2);
}

TEST_F(VxtoolIdentity, BlessWritesAChunkThatOpensslAndSha1sumAgreeWith)
{
    const std::string chunk_file = m_dir.Path() + "/bles.chunk";
    const RunResult made = Vxtool({"bless", "--key", TestPrivateKey("blessing-1"), "--names",
                                   "a:b", "--parameter", "4k", "--secure-id", SECURE_ID,
                                   "--serial", "VX0000042", "-o", chunk_file});
    ASSERT_EQ(made.exit_status, 0) << made.err;
    const std::string chunk = vxtest::ReadFile(chunk_file);
    ASSERT_EQ(chunk.size(), 8u + 2 + 3 + 2 + 256 + 2 + 2 + 20);
    EXPECT_EQ(chunk.substr(0, 8), std::string("BLES\x1f\x01\0\0", 8));
    const std::string payload = chunk.substr(8, chunk.size() - 28);
    const RunResult sum = RunProgram("/usr/bin/sha1sum", {}, payload);
    EXPECT_EQ(vxtest::ToHex(chunk.substr(chunk.size() - 20)), sum.out.substr(0, 40));

    EXPECT_EQ(payload.substr(0, 5), Field("a:b"));
    EXPECT_EQ(payload.substr(263), Field("4k"));
    const std::string signature_file = m_dir.WriteFile("sig", payload.substr(7, 256));
    const std::string message =
        Field("BLES") + Field(SECURE_ID) + Field("VX0000042") + Field("4k") + Field("a:b");
    EXPECT_EQ(Openssl({"dgst", "-sha256", "-verify", TestPublicKey("blessing-1"), "-signature",
                       signature_file},
                      message),
              "Verified OK\n");
}

TEST_F(VxtoolIdentity, BlessingsListsGrantedNamesWithTheSerialFromTheEnvironment)
{
    const std::string env_image = SignedEnvironmentImage(FACTORY_LINES);
    const auto bless = [&](const std::string& file, std::vector<std::string> args) {
        args.insert(args.begin(), "bless");
        args.insert(args.end(), {"-o", m_dir.Path() + "/" + file});
        const RunResult result = Vxtool(args);
        EXPECT_EQ(result.exit_status, 0) << result.err;
        return m_dir.Path() + "/" + file;
    };
    const std::string bound = bless("bound", {"--key", TestPrivateKey("blessing-1"), "--names",
                                              "eac3:hdr", "--parameter", "p", "--secure-id",
                                              SECURE_ID, "--serial", "VX0000042"});
    const std::string other = bless("other", {"--key", TestPrivateKey("blessing-1"), "--names",
                                              "stolen", "--secure-id", SECURE_ID, "--serial",
                                              "VX0000043"});
    const std::string boon =
        bless("boon", {"--key", TestPrivateKey("blessing-2"), "--names", "x", "--boon"});
    const std::string devdata = m_dir.Path() + "/devid.img";
    const RunResult made = Vxtool({"mkdevdata", "--erase-size", ERASE_SIZE, "-o", devdata,
                                   "--bad-blocks", "0", bound, other, boon});
    ASSERT_EQ(made.exit_status, 0) << made.err;

    std::vector<std::string> args = {"blessings", "--image", devdata, "--erase-size", ERASE_SIZE,
                                     "--bad-blocks", "0", "--secure-id", SECURE_ID};
    std::vector<std::string> with_env = args;
    for (const auto& a : EnvImageArgs(env_image, "--env-"))
        with_env.push_back(a);
    RunResult result = Vxtool(with_env);
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out, "eac3\tp\nhdr\tp\nx\t\n");
    EXPECT_EQ(result.err, "Exception while checking blessings: Blessing not correctly signed\n");

    std::vector<std::string> with_serial = args;
    with_serial.insert(with_serial.end(), {"--serial", "VX0000043"});
    result = Vxtool(with_serial);
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out, "stolen\t\nx\t\n");

    result = Vxtool(args);
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_EQ(Lines(result.err).at(0),
              "vxtool blessings: with --image, give --serial or an --env-image");
}

TEST_F(VxtoolIdentity, FactoryCommandsRefuseIncompleteOrWrongRequests)
{
    const std::string key = TestPrivateKey("blessing-1");
    const std::string out = m_dir.Path() + "/chunk";
    EXPECT_EQ(Vxtool({"bless", "--key", key, "--names", "a", "--boon", "--serial", "1", "-o", out})
                  .exit_status, 2);
    EXPECT_EQ(Vxtool({"bless", "--key", key, "--names", "a", "--secure-id", SECURE_ID, "-o", out})
                  .exit_status, 2);
    RunResult result = Vxtool({"bless", "--key", key, "--names", "eac3", "--boon", "-o", out});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "error: A boon cannot name eac3: the player refuses it\n");
    result = Vxtool({"bless", "--key", TestPublicKey("blessing-1"), "--names", "a", "--boon", "-o",
                     out});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "error: " + TestPublicKey("blessing-1") +
                              ": Invalid RSA private key: no PEM private key found\n");

    EXPECT_EQ(Vxtool({"sign-srb", "--secure-id", SECURE_ID}, "A=1\n").exit_status, 2);
    result = Vxtool({"sign-srb", "--key", TestPrivateKey("srb-1"), "--secure-id", SECURE_ID},
                    "A=1\nnoequals\n");
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "error: line 2: no '=' in 'noequals'\n");
    EXPECT_EQ(result.out, "");
}

} // namespace
