// vxtool sign-srb and bless with keys on a PKCS#11 token: Debian's SoftHSM2,
// a token initialised in a scratch directory and the committed test keys
// imported into it. A token's signature is the PEM key's, byte for byte.
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/oracles.h"
#include "support/programs.h"

namespace {

using Args = std::vector<std::string>;

constexpr const char* SOFTHSM_MODULE = "/usr/lib/softhsm/libsofthsm2.so";
const std::string ID = "a1b2c3d4e5f60718", SERIAL = "VX0000042", PIN = "5678";
const std::string URI = "pkcs11:token=vx-factory;object=";

// A SoftHSM2 token "vx-factory" in a scratch directory, named to every
// program the test starts by SOFTHSM2_CONF, with srb-1, blessing-2 and a
// 1024-bit key ("small") on it.
struct SoftHsmToken {
    vxtest::TempDir dir;

    SoftHsmToken()
    {
        mkdir((dir.Path() + "/tokens").c_str(), 0700);
        setenv("SOFTHSM2_CONF",
               dir.WriteFile("softhsm2.conf", "directories.tokendir = " + dir.Path() +
                                                  "/tokens\nobjectstore.backend = file\nlog.level = ERROR\n")
                   .c_str(),
               1);
        const std::string small = dir.Path() + "/small.pem";
        EXPECT_EQ(vxtest::Run("/usr/bin/openssl", {"genpkey", "-algorithm", "RSA", "-pkeyopt",
                                                   "rsa_keygen_bits:1024", "-out", small})
                      .exit_status,
                  0);
        const auto import = [](const std::string& pem, const char* label, const char* id) {
            return Args{"--import", pem, "--token", "vx-factory", "--label", label, "--id", id};
        };
        for (Args args : {Args{"--init-token", "--free", "--label", "vx-factory", "--so-pin", "1234"},
                          import(vxtest::TestPrivateKey("srb-1"), "srb-1", "01"),
                          import(vxtest::TestPrivateKey("blessing-2"), "blessing-2", "02"),
                          import(small, "small", "03")}) {
            args.insert(args.end(), {"--pin", PIN});
            const vxtest::RunResult r = vxtest::Run("/usr/bin/softhsm2-util", args);
            EXPECT_EQ(r.exit_status, 0) << r.out << r.err;
        }
    }
    ~SoftHsmToken() { unsetenv("SOFTHSM2_CONF"); }
};

// The exit status, ":", then standard output and standard error.
std::string Vxtool(const Args& args, const std::string& input = {})
{
    const vxtest::RunResult r = vxtest::Vxtool(args, input);
    return std::to_string(r.exit_status) + ":" + r.out + r.err;
}

TEST(VxtoolPkcs11, TheTokenSignsAsThePemKeyAndRefusesWhatThePlayerWouldNotAccept)
{
    VXTEST_REQUIRE_TEST_KEYS();
#ifdef VX_TEST_EMULATOR
    GTEST_SKIP() << "SoftHSM's module is the build machine's, the programs the player's";
#endif
    const SoftHsmToken token;
    const std::string pin = token.dir.WriteFile("pin", PIN + "\n"), chunk = token.dir.Path() + "/chunk";
    const std::string records = "VX_SERIAL=" + SERIAL + "\nVX_FORMAT=1\n";

    // The SRB through the URI's module and PIN file: the PEM key's lines,
    // which the player's verifier accepts.
    const std::string signed_lines =
        Vxtool({"sign-srb", "--secure-id", ID, "--key",
                URI + "srb-1?module-path=" + SOFTHSM_MODULE + "&pin-source=file:" + pin},
               records);
    EXPECT_EQ(signed_lines, Vxtool({"sign-srb", "--secure-id", ID, "--key", vxtest::TestPrivateKey("srb-1")}, records));
    const std::string env = token.dir.Path() + "/env.img";
    EXPECT_EQ(Vxtool({"mkenv", "--erase-size", "16384", "-o", env}, signed_lines.substr(2)), "0:");
    EXPECT_EQ(Vxtool({"srb", "--image", env, "--erase-size", "16384", "--secure-id", ID}), "0:valid\n");

    // A blessing through p11-kit's configured modules, the PIN on standard
    // input: the chunk that openssl's signature makes.
    EXPECT_EQ(Vxtool({"bless", "--key", URI + "blessing-2", "--names", "vxear", "--secure-id", ID, "--serial", SERIAL,
                      "-o", chunk},
                     PIN + "\n"),
              "0:");
    EXPECT_EQ(vxtest::ReadFile(chunk), vxtest::Sha1sumChunk("BLES", vxtest::OpensslBlessingPayload(
                                                                        "blessing-2", "BLES", "vxear", "", ID, SERIAL)));

    const auto bless = [&chunk](const std::string& key) {
        return Args{"bless", "--names", "vxear", "--boon", "-o", chunk, "--key", key};
    };
    const std::string module = "?module-path=" + std::string(SOFTHSM_MODULE);
    const struct {
        Args args;
        std::string input, expected;
    } refused[] = {
        {bless(URI + "blessing-2"), "0000\n",
         "1:error: token 'vx-factory' refused the PIN: The password or PIN is incorrect\n"},
        {bless(URI + "nope"), PIN + "\n",
         "1:error: no private key on token 'vx-factory' matches " + URI + "nope\n"},
        {bless(URI + "small"), PIN + "\n",
         "1:error: the key has 1024 bits: the player's blessing keys are 2048-bit RSA keys\n"},
        {bless(URI + "srb-1"), PIN + "\n",
         "1:error: the key is not one of the player's blessing keys: the player would refuse its signatures\n"},
        {bless("pkcs11:token=other;object=x" + module), PIN + "\n",
         "1:error: no token matches pkcs11:token=other;object=x" + module + " (tokens present: 'vx-factory')\n"},
        {bless(URI + "srb-1?pin-value=" + PIN), "",
         "1:error: " + URI + "srb-1?pin-value=" + PIN +
             ": pin-value would put the PIN on the command line: use pin-source=file:PATH, or give the PIN on "
             "standard input\n"},
        {{"sign-srb", "--secure-id", ID, "--key", URI + "srb-1"}, records,
         "1:error: token 'vx-factory' needs its PIN, and standard input holds the records: give the PIN with "
         "pin-source=file:PATH in the URI\n"},
    };
    for (const auto& c : refused)
        EXPECT_EQ(Vxtool(c.args, c.input), c.expected) << c.args.back();
}

} // namespace
