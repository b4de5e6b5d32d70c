// vxtool run as a program on partition images: its options, image layouts,
// listings, exit statuses and signing keys, in files and on a PKCS#11 token
// (the formats are the library tests' part, the round trip through the MTD
// driver the simulated player's).
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/oracles.h"

namespace {

using Args = std::vector<std::string>;
using vxtest::Le32;
using vxtest::Sha1sumChunk;
using vxtest::TestPrivateKey;

// The exit status, ":", then standard output and standard error.
std::string Vxtool(const Args& args, const std::string& input = {})
{
    const vxtest::RunResult r = vxtest::Vxtool(args, input);
    return std::to_string(r.exit_status) + ":" + r.out + r.err;
}

Args operator+(Args args, const Args& more)
{
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

auto UsageError(const std::string& command, const std::string& message)
{
    return testing::StartsWith("2:error: " + message + "\nusage: vxtool " + command + " ");
}

TEST(VxtoolEnv, PrintsTheEnvironmentOfTheFirstGoodBlockAndRefusesBadUsage)
{
    vxtest::TempDir dir;
    const std::string made = dir.Path() + "/env.bin";
    ASSERT_EQ(Vxtool({"mkenv", "--erase-size", "16384", "-o", made},
                     "VX_SERIAL=SIM0001\r\n\nVX_OEM_MODEL=Sim=Model\nVX_FORMAT=0\nVX_FORMAT=1\nE="),
              "0:");
    // Bad blocks in front hold a decoy environment that must not be read.
    const std::string decoy = vxtest::EnvironmentBlock({"DECOY=1"}, 16384);
    const std::string image = dir.WriteFile("image", decoy + decoy + vxtest::ReadFile(made));
    const Args env = {"env", "--image", image, "--erase-size", "16384", "--bad-blocks"};
    EXPECT_EQ(Vxtool(env + Args{"0,1"}), "0:E=\nVX_FORMAT=1\nVX_OEM_MODEL=Sim=Model\nVX_SERIAL=SIM0001\n");
    EXPECT_EQ(Vxtool(env + Args{"1"}), "0:DECOY=1\n");
    EXPECT_EQ(Vxtool(env + Args{"0,1,2"}), "1:error: All BOLT environment NAND blocks are bad\n");

    // Records that do not fit in the block: exit 1 and nothing written.
    const std::string out = dir.Path() + "/out.bin";
    EXPECT_THAT(Vxtool({"mkenv", "--erase-size", "8", "-o", out}, "A=1\nB=2\n"),
                testing::StartsWith("1:error: "));
    EXPECT_NE(access(out.c_str(), F_OK), 0);
    const std::string e = "--erase-size";
    const Args good = {"env", "--image", image, e, "4096"};
    for (const Args& args : {Args{"env", "--image", image}, Args{"env", e, "4096"},
                             Args{"env", "--image", image, e, "0"}, good + Args{"--bad-blocks", "1,,2"},
                             good + Args{"--write-size", "3000"}, good + Args{"--mtd", "x"},
                             good + Args{"--extra"}, Args{"mkenv", e, "4096"}, Args{"mkenv", "-o", out}})
        EXPECT_EQ(vxtest::Vxtool(args).exit_status, 2) << args.back();
    // The live table is named when it cannot be read (a machine without MTD).
    if (access("/proc/mtd", F_OK) != 0) {
        EXPECT_EQ(Vxtool({"env"}), "1:error: /proc/mtd: No such file or directory (errno 2)\n");
    }
}

// What a new user meets: an environment with nothing in it said to be so,
// single values, usage errors before anything is read, one prefix for every
// error, no file named "-", sources that do not mix silently, help and the
// version. Each with its exit status.
TEST(VxtoolAnswers, EachOutcomeHasItsStatusAndSaysWhy)
{
    vxtest::TempDir dir;
    const std::string block = vxtest::EnvironmentBlock({"VX_SERIAL=S1", "A=1"}, 4096);
    const Args env = {"env", "--erase-size", "4096", "--image", dir.WriteFile("env", block)};
    const Args zeroed = {"env", "--erase-size", "4096", "--image", dir.WriteFile("zero", std::string(8192, '\0'))};
    const Args erased = {"env", "--erase-size", "4096", "--image", dir.WriteFile("ff", std::string(8192, '\xFF'))};
    using testing::StartsWith;
    const struct {
        Args args;
        testing::Matcher<std::string> expected;
    } cases[] = {
        {zeroed, "3:error: no variables: the block at offset 0 is all zeros (a wrong image, erase size or bad-block "
                 "list?)\n"},
        {erased + Args{"--bad-blocks", "0"}, "3:error: no variables: the block at offset 4096 is erased (it begins "
                                             "with 0xff)\n"},
        {env + Args{"VX_SERIAL", "NOPE", "A"}, "3:VX_SERIAL=S1\nA=1\nerror: NOPE is not defined\n"},
        {env + Args{"-n", "VX_SERIAL"}, "0:S1\n"},
        {env + Args{"-n", "A", "VX_SERIAL"}, UsageError("env", "-n prints the value of one variable: give one NAME")},
        {{"registry", "get"}, UsageError("registry", "missing SECTION")},
        {{"report", "--env-image", "x", "--env-erase-size", "4096"},
         UsageError("report", "--env-image given, but not --devdata-image, --bolt-image, --rescue-image, --boardid, "
                              "--meminfo, --version-file, --mem, --sys, --eth0-address: give them too, or "
                              "--live-others to read those from this machine")},
        {{"mkenv", "--erase-size", "4096", "-o", "-"}, "0:" + block},
        {{"help", "env"}, StartsWith("0:usage: vxtool env [--env-mtd NAME | --env-image FILE ...] [-n] [NAME...] "
                                     "[--json]\n")},
        {{"help", "nope"}, StartsWith("2:error: unknown command 'nope'\nusage: vxtool COMMAND")},
        {{"--version"}, testing::MatchesRegex("0:vxtool [0-9]+\\.[0-9]+\n")},
    };
    for (const auto& c : cases)
        EXPECT_THAT(Vxtool(c.args, "VX_SERIAL=S1\nA=1\n"), c.expected) << c.args.back();
    EXPECT_NE(access("-", F_OK), 0);
}

TEST(VxtoolDevdata, BuildsAndListsImages)
{
    vxtest::TempDir dir;
    const std::string chunks = Sha1sumChunk("BLES", std::string(300, 'b')) + Sha1sumChunk("BOON", "x");
    const std::string image = dir.Path() + "/devid.img";
    EXPECT_EQ(Vxtool({"mkdevdata", "--erase-size", "16384", "-o", image, "--bad-blocks", "0",
                      "--header-word", "0x01020304", "--chunk",
                      "RAW_:" + dir.WriteFile("abc", "abc"), dir.WriteFile("c", chunks)}),
              "0:");
    const std::string data = "VXDD" + Le32(0x01020304) + Sha1sumChunk("RAW_", "abc") + chunks;
    EXPECT_EQ(vxtest::ReadFile(image),
              std::string(16384, '\0') + data + std::string(16384 - data.size(), '\xFF'));
    const Args listing = {"devdata", "--image", image, "--erase-size", "16384", "--bad-blocks", "0"};
    EXPECT_EQ(Vxtool(listing), "0:RAW_\t3\tok\nBLES\t300\tok\nBOON\t1\tok\n");
    EXPECT_THAT(Vxtool(listing + Args{"--write-size", "4096"}),
                UsageError("devdata", "--write-size 4096: the device-data partition has pages of 2048 bytes"));
    // A chunk longer than an erase block ends the partition's walk: the
    // chunks before it are listed, then the error.
    std::string oversized = vxtest::ReadFile(image);
    oversized.replace(16384 + 8 + 8 + 3 + 20 + 8 + 300 + 20 + 4, 4, Le32(16385));
    EXPECT_EQ(Vxtool({"devdata", "--image", dir.WriteFile("oversized", oversized), "--erase-size", "16384",
                      "--bad-blocks", "0"}),
              "1:RAW_\t3\tok\nBLES\t300\tok\nerror: Veltrix device data section too large\n");

    // Two 2028-byte chunks need two blocks from block 1 on; block 2 is bad.
    const std::string chunk = "ONE_:" + dir.WriteFile("payload", std::string(2000, 'p'));
    EXPECT_EQ(Vxtool({"mkdevdata", "--erase-size", "2048", "-o", image, "--bad-blocks", "0,2",
                      "--chunk", chunk, "--chunk", chunk}),
              "1:error: bad block 2 lies inside the data (blocks 1 to 2)\n");

    // The listing goes on past corrupt and too small chunks and ends at a structural error.
    std::string tampered = Sha1sumChunk("BLES", "abc");
    tampered[10] = 'd';
    // With 256 KiB erase blocks a chunk longer than the parser's limit reaches the parser.
    std::string mixed = "VXDD" + Le32(0) + tampered + "TINY" + Le32(19) + std::string(19, 'x') +
                        Sha1sumChunk("\x01" "AB\\", "") + "HUGE" + Le32(0x20001);
    mixed.resize(262144, '\xFF');
    const vxtest::RunResult listed =
        vxtest::Vxtool({"devdata", "--image", dir.WriteFile("i", mixed), "--erase-size", "262144"});
    EXPECT_EQ(listed.exit_status, 1);
    EXPECT_EQ(listed.out, "BLES\t3\tcorrupt\nTINY\t-\ttoo-small\n\\x01AB\\x5c\t0\tok\n");
    EXPECT_THAT(listed.err, testing::EndsWith("\nerror: Veltrix device data section too large\n"));

    // The factory tool refuses what the player would report.
    const std::string file = dir.WriteFile("tampered.chunk", tampered);
    EXPECT_EQ(Vxtool({"mkdevdata", "--erase-size", "2048", "-o", dir.Path() + "/o", file}),
              "1:error: " + file + ": chunk at offset 0 failed integrity check\n");
}

// One grammar for every partition: its prefixed options in every command
// that reads it, and for a command's own partition the unprefixed spelling
// that scripts have used all along; both at once are refused.
TEST(VxtoolSources, EveryPartitionByItsPrefixAndTheOwnOneAlsoWithout)
{
    vxtest::TempDir dir;
    const std::string env = dir.WriteFile("env", std::string(16384, '\0') + vxtest::EnvironmentBlock({"A=1"}, 16384));
    std::string data = "VXDD" + Le32(0) + Sha1sumChunk("TAG_", "x");
    const std::string devid = dir.WriteFile("devid", data.append(32768 - data.size(), '\xFF'));
    const Args env_image = {"--erase-size", "16384", "--bad-blocks", "0", "--image", env};
    const Args devid_image = {"--image", devid, "--erase-size", "16384"};
    const auto prefixed = [](const std::string& prefix, Args args) {
        for (std::string& arg : args)
            arg = arg.rfind("--", 0) == 0 ? "--" + prefix + "-" + arg.substr(2) : arg;
        return args;
    };
    const struct { Args command, own; const char* prefix; std::string expected; } cases[] = {
        {{"env"}, env_image, "env", "0:A=1\n"},
        {{"srb", "--secure-id", "x"}, env_image, "env", "1:invalid: SRB signature not found\n"},
        {{"devdata"}, devid_image, "devdata", "0:TAG_\t1\tok\n"},
        {{"blessings", "--serial", "S", "--secure-id", "x"}, devid_image, "devdata", "0:"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Vxtool(c.command + c.own), c.expected) << c.command[0];
        EXPECT_EQ(Vxtool(c.command + prefixed(c.prefix, c.own)), c.expected) << c.command[0];
        EXPECT_THAT(Vxtool(c.command + c.own + prefixed(c.prefix, {"--mtd", "x"})),
                    UsageError(c.command[0], std::string("--mtd, --image ... and --") + c.prefix + "-mtd, --" +
                                                 c.prefix + "-image ... name the same partition"));
        // Messages name the options as they were spelled.
        EXPECT_THAT(Vxtool(c.command + prefixed(c.prefix, {"--image", "f"})),
                    UsageError(c.command[0], std::string("--") + c.prefix + "-image needs --" + c.prefix +
                                                 "-erase-size"));
    }
}

const std::string ID = "a1b2c3d4e5f60718";

TEST(VxtoolIdentity, SignedRecordsAndTheOptionsThatNameTheDevice)
{
    VXTEST_REQUIRE_TEST_KEYS();
    vxtest::TempDir dir;
    // sign-srb drops the old signature variables; its output makes an environment image.
    const std::string lines = Vxtool({"sign-srb", "--key", TestPrivateKey("srb-2"), "--secure-id", ID},
                                     "VX_SERIAL=VX0000042\r\n\nVX_SIGNATURE=Xold\nVX_SIGNATURE_0=Xold\nVX_FORMAT=1\n");
    EXPECT_THAT(lines, testing::StartsWith("0:VX_SERIAL=VX0000042\nVX_FORMAT=1\nVX_SIGNATURE_0=A"));
    const std::string env = dir.Path() + "/env.img";
    EXPECT_EQ(Vxtool({"mkenv", "--erase-size", "16384", "-o", env}, lines.substr(2)), "0:");

    const Args srb = {"srb", "--image", env, "--erase-size", "16384"};
    const std::string boardid = dir.WriteFile("boardid", "Secure-ID: " + ID + "\n");
    EXPECT_EQ(Vxtool(srb + Args{"--secure-id", ID}), "0:valid\n");
    EXPECT_EQ(Vxtool(srb + Args{"--boardid", boardid}), "0:valid\n");
    EXPECT_EQ(Vxtool(srb + Args{"--boardid", dir.Path() + "/absent"}),
              "1:error: " + dir.Path() + "/absent: No such file or directory (errno 2)\n");
    const std::string no_id = dir.WriteFile("no-id", "ID: 0x1\n");
    EXPECT_EQ(Vxtool(srb + Args{"--boardid", no_id}),
              "1:invalid: No secure ID (no \"Secure-ID:\" line in " + no_id + ")\n");
    // A record the player ignores: signed, but VX_FORMAT is not "1".
    const std::string unformatted = dir.Path() + "/unformatted.img";
    const std::string signed_lines = Vxtool({"sign-srb", "--key", TestPrivateKey("srb-1"), "--secure-id", ID},
                                            "VX_SERIAL=VX0000042\nVX_FORMAT=01\n");
    EXPECT_EQ(Vxtool({"mkenv", "--erase-size", "16384", "-o", unformatted}, signed_lines.substr(2)), "0:");
    EXPECT_EQ(Vxtool({"srb", "--image", unformatted, "--erase-size", "16384", "--secure-id", ID}),
              "1:valid signature, but VX_FORMAT is not \"1\": the player treats this unit as having no SRB\n");
    EXPECT_THAT(Vxtool(srb + Args{"--boardid", boardid, "--secure-id", ID}),
                UsageError("srb", "--secure-id and --boardid exclude each other"));

    // A blessing for this device with the serial of the environment.
    const std::string chunk = dir.Path() + "/chunk", data = dir.Path() + "/devid.img";
    EXPECT_EQ(Vxtool({"bless", "--key", TestPrivateKey("blessing-1"), "-o", chunk, "--names", "eac3:hdr",
                      "--parameter", "p", "--secure-id", ID, "--serial", "VX0000042"}),
              "0:");
    EXPECT_EQ(Vxtool({"mkdevdata", "--erase-size", "16384", "-o", data, chunk}), "0:");
    const Args list = {"blessings", "--image", data, "--erase-size", "16384", "--secure-id", ID};
    EXPECT_EQ(Vxtool(list + Args{"--env-image", env, "--env-erase-size", "16384"}), "0:eac3\tp\nhdr\tp\n");
    EXPECT_EQ(Vxtool(list + Args{"--serial", "VX0000043"}),
              "1:Exception while checking blessings: Blessing not correctly signed\n"
              "error: none of the 1 blessing records grants anything to this unit\n");
    EXPECT_THAT(Vxtool(list + Args{"--env-image", env}),
                UsageError("blessings", "--env-image needs --env-erase-size"));
    EXPECT_THAT(Vxtool(list), UsageError("blessings", "with --image, give --serial or an --env-image"));

    // The factory commands refuse what the player would not accept.
    const std::string pub = vxtest::TestPublicKey("blessing-1");
    const Args bless = {"bless", "--names", "eac3", "--boon", "-o", chunk};
    EXPECT_EQ(Vxtool(bless + Args{"--key", TestPrivateKey("blessing-1")}),
              "1:error: A boon cannot name eac3: the player refuses it\n");
    EXPECT_EQ(Vxtool(bless + Args{"--key", pub}),
              "1:error: " + pub + ": Invalid RSA private key: no PEM private key found\n");
    EXPECT_THAT(Vxtool(bless + Args{"--key", pub, "--serial", "1"}),
                UsageError("bless", "a boon is bound to no device: --boon excludes --secure-id "
                                    "and --serial"));
    EXPECT_EQ(Vxtool({"sign-srb", "--secure-id", ID, "--key", TestPrivateKey("srb-1")}, "A=1\nx\n"),
              "1:error: line 2: no '=' in 'x'\n");
    // Keys of the other role, and Secure IDs the player cannot read back.
    EXPECT_EQ(Vxtool({"sign-srb", "--secure-id", ID, "--key", TestPrivateKey("blessing-1")}, "A=1\n"),
              "1:error: the key is not one of the player's SRB keys: the player would refuse its signatures\n");
    EXPECT_EQ(Vxtool({"bless", "--names", "x", "--boon", "-o", chunk, "--key", TestPrivateKey("srb-2")}),
              "1:error: the key is not one of the player's blessing keys: the player would refuse its signatures\n");
    for (const std::string& id : {std::string("a1b2 c3d4"), std::string(65, 'a')})
        EXPECT_THAT(Vxtool({"sign-srb", "--secure-id", id, "--key", TestPrivateKey("srb-1")}, "A=1\n"),
                    UsageError("sign-srb", "--secure-id '" + id + "': the player reads 1 to 64 characters without blanks"));
}

// sign-srb and bless with keys on a PKCS#11 token: Debian's SoftHSM2, a token
// initialised in a scratch directory and the committed test keys imported
// into it. A token's signature is the PEM key's, byte for byte.
constexpr const char* SOFTHSM_MODULE = "/usr/lib/softhsm/libsofthsm2.so";
const std::string SERIAL = "VX0000042", PIN = "5678";
const std::string URI = "pkcs11:token=vx-factory;object=";

// A SoftHSM2 token "vx-factory" in a scratch directory, named to every
// program the test starts by SOFTHSM2_CONF, with srb-1, blessing-2 and a
// 1024-bit key ("small") on it.
struct SoftHsmToken {
    vxtest::TempDir dir;

    SoftHsmToken()
    {
        mkdir((dir.Path() + "/tokens").c_str(), 0700);
        const std::string conf = "directories.tokendir = " + dir.Path() + "/tokens\nlog.level = ERROR\n";
        setenv("SOFTHSM2_CONF", dir.WriteFile("softhsm2.conf", conf).c_str(), 1);
        // A key of the wrong size; the import below fails without it.
        const std::string small = dir.Path() + "/small.pem";
        vxtest::Run("/usr/bin/openssl",
                    {"genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:1024", "-out", small});
        const auto import = [](const std::string& pem, const char* label, const char* id) {
            return Args{"--import", pem, "--token", "vx-factory", "--label", label, "--id", id};
        };
        for (Args args : {Args{"--init-token", "--free", "--label", "vx-factory", "--so-pin", "1234"},
                          import(TestPrivateKey("srb-1"), "srb-1", "01"),
                          import(TestPrivateKey("blessing-2"), "blessing-2", "02"),
                          import(small, "small", "03")}) {
            args.insert(args.end(), {"--pin", PIN});
            const vxtest::RunResult r = vxtest::Run("/usr/bin/softhsm2-util", args);
            EXPECT_EQ(r.exit_status, 0) << r.out << r.err;
        }
    }
    ~SoftHsmToken() { unsetenv("SOFTHSM2_CONF"); }
};

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
    EXPECT_EQ(signed_lines, Vxtool({"sign-srb", "--secure-id", ID, "--key", TestPrivateKey("srb-1")}, records));
    const std::string env = token.dir.Path() + "/env.img";
    EXPECT_EQ(Vxtool({"mkenv", "--erase-size", "16384", "-o", env}, signed_lines.substr(2)), "0:");
    EXPECT_EQ(Vxtool({"srb", "--image", env, "--erase-size", "16384", "--secure-id", ID}), "0:valid\n");

    // A blessing through p11-kit's configured modules, the PIN on standard
    // input: the chunk that openssl's signature makes.
    EXPECT_EQ(Vxtool({"bless", "--key", URI + "blessing-2", "--names", "vxear", "--secure-id", ID, "--serial", SERIAL,
                      "-o", chunk},
                     PIN + "\n"),
              "0:");
    EXPECT_EQ(vxtest::ReadFile(chunk),
              Sha1sumChunk("BLES", vxtest::OpensslBlessingPayload("blessing-2", "BLES", "vxear", "", ID, SERIAL)));

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
