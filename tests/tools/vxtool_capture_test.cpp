// vxtool capture and --capture: a capture reads back exactly as the same
// data given as saved files and images does, refuses to be mixed with other
// sources, and a capture is written whole into a new directory or not at all.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "saved_player.h"
#include "support/hostile_files.h"

namespace {

namespace fs = std::filesystem;

// The saved player of saved_player.h as a capture in its directory's
// "capture": the same images, files, /sys, AVS block and eth0 address.
std::string CaptureOf(const SavedPlayer& player, nlohmann::json change = nlohmann::json::object())
{
    std::map<std::string, std::string> option;
    for (std::size_t i = 1; i + 1 < player.args.size(); i += 2)
        option[player.args[i]] = player.args[i + 1];
    const std::string dir = player.dir.Path() + "/capture";
    fs::create_directories(dir + "/flash");
    fs::create_directories(dir + "/files/proc");
    fs::create_directories(dir + "/files/etc");
    nlohmann::json partitions = nlohmann::json::array();
    const std::pair<const char*, const char*> names[] = {
        {"env", "flash0.nvram"}, {"devdata", "flash0.devid"}, {"bolt", "flash0.bolt"}, {"rescue", "flash0.rescue"}};
    std::string table = "dev:    size   erasesize  name\n";
    for (std::size_t i = 0; i < 4; ++i) {
        const std::string image = "flash/mtd" + std::to_string(i) + ".img";
        fs::copy_file(option["--" + std::string(names[i].first) + "-image"], dir + "/" + image);
        partitions.push_back({{"name", names[i].second}, {"device", "/dev/mtd" + std::to_string(i)},
                              {"size", fs::file_size(dir + "/" + image)}, {"erase_size", E}, {"write_size", 2048},
                              {"oob_size", 64}, {"bad_blocks", nlohmann::json::array()}, {"image", image},
                              {"raw", nullptr}});
    }
    fs::copy_file(option["--boardid"], dir + "/files/proc/boardid");
    fs::copy_file(option["--meminfo"], dir + "/files/proc/meminfo");
    fs::copy_file(option["--version-file"], dir + "/files/etc/veltrix-version");
    std::ofstream(dir + "/files/proc/mtd") << table;
    fs::copy(option["--sys"], dir + "/sys", fs::copy_options::recursive);
    nlohmann::json avs = nlohmann::json::array();
    std::ifstream mem(option["--mem"], std::ios::binary);
    mem.seekg(0x08144000);
    for (int i = 0; i < 18; ++i) {
        unsigned char b[4];
        mem.read(reinterpret_cast<char*>(b), 4);
        avs.push_back(b[0] | b[1] << 8 | b[2] << 16 | std::uint32_t(b[3]) << 24);
    }
    nlohmann::json manifest = {
        {"format", "vx-capture"}, {"version", 1}, {"partitions", partitions},
        {"files", {{"/proc/mtd", "files/proc/mtd"}, {"/proc/boardid", "files/proc/boardid"},
                   {"/proc/meminfo", "files/proc/meminfo"}, {"/proc/cmdline", nullptr},
                   {"/etc/veltrix-version", "files/etc/veltrix-version"}}},
        {"eth0", {{"present", true}, {"address", option["--eth0-address"]}}},
        {"avs", avs}};
    if (change.is_object()) // a row's {} is null
        manifest.merge_patch(change);
    std::ofstream(dir + "/manifest.json") << manifest.dump(2);
    return dir;
}

// Every file below dir with its contents: what a read must leave as it was.
std::map<std::string, std::string> Tree(const std::string& dir)
{
    std::map<std::string, std::string> tree;
    for (const auto& entry : fs::recursive_directory_iterator(dir))
        tree[entry.path()] = entry.is_regular_file() ? vxtest::ReadFile(entry.path()) : "dir";
    return tree;
}

// Each reading command answers from the capture byte for byte as it does
// from the same data named option by option, and leaves the capture as it
// was (the GPIO line it sets to input is a private copy).
TEST(VxtoolCapture, ReadsBackAsTheSameSavedSources)
{
    VXTEST_REQUIRE_TEST_KEYS();
    const SavedPlayer player("1", "7", BOARD + "Secure-ID: " + SECURE_ID + "\n", BlessedDeviceData());
    const std::string capture = CaptureOf(player);
    const std::vector<std::string>& all = player.args;
    const std::vector<std::string> saved(all.begin() + 1, all.end());
    const auto pick = [&](std::initializer_list<std::string> prefixes) { return Pick(all, prefixes); };
    const struct {
        std::vector<std::string> command, sources;
    } rows[] = {
        {{"report"}, saved},
        {{"report", "--json"}, saved},
        {{"versions"}, pick({"--bolt", "--rescue", "--env", "--devdata", "--boardid", "--version-file"})},
        {{"hwconfig", "--json"}, pick({"--env", "--devdata", "--boardid"})},
        {{"env"}, pick({"--env"})},
        {{"devdata"}, pick({"--devdata"})},
        {{"blessings"}, pick({"--env", "--devdata", "--boardid"})},
    };
    const auto before = Tree(capture);
    for (const auto& row : rows) {
        std::vector<std::string> from_saved = row.command, from_capture = row.command;
        from_saved.insert(from_saved.end(), row.sources.begin(), row.sources.end());
        from_capture.insert(from_capture.end(), {"--capture", capture});
        const vxtest::RunResult expected = vxtest::Vxtool(from_saved), actual = vxtest::Vxtool(from_capture);
        const std::string what = row.command[0] + (row.command.size() > 1 ? " " + row.command[1] : "");
        EXPECT_EQ(actual.exit_status, expected.exit_status) << what;
        EXPECT_EQ(actual.out, expected.out) << what;
        EXPECT_EQ(actual.err, expected.err) << what;
        EXPECT_NE(expected.out + expected.err, "") << what;
    }
    EXPECT_EQ(vxtest::Vxtool({"avs", "--capture", capture}).out,
              vxtest::Vxtool({"avs", "--dump", player.dir.WriteFile("avs", [&] {
                                  std::ifstream mem(player.dir.Path() + "/mem", std::ios::binary);
                                  std::string block(72, '\0');
                                  mem.seekg(0x08144000).read(block.data(), 72);
                                  return block;
                              }())}).out);
    EXPECT_EQ(Tree(capture), before);
}

// What a capture does not hold reads as absent, and a capture is never
// mixed with another source; a directory that is no capture (of this
// version) is named.
TEST(VxtoolCapture, AbsentSourcesMixingAndForeignDirectories)
{
    const SavedPlayer player;
    const std::string dir = player.dir.Path();
    const struct {
        nlohmann::json change;
        std::vector<std::string> args;
        int status;
        std::string err_start; // "@" stands for the capture
    } rows[] = {
        {{{"eth0", {{"present", false}, {"address", nullptr}}}},
         {"report"}, 1, "ERROR: Ethernet device not found\n"},
        {{{"avs", nullptr}}, {"avs"}, 1, "error: @: the capture holds no AVS status block\n"},
        {{}, {"report", "--env-image", dir + "/env"}, 2, "error: --capture and --env-image exclude each other"},
        {{}, {"env", "--mtd", "flash0.nvram"}, 2, "error: --capture and --mtd exclude each other"},
        {{}, {"versions", "--boardid", dir + "/boardid"}, 2, "error: --capture and --boardid exclude each other"},
        {{}, {"report", "--sys", dir + "/sys"}, 2, "error: --capture and --sys exclude each other"},
        {{}, {"report", "--live-others"}, 2, "error: --capture and --live-others exclude each other"},
        {{}, {"avs", "--dump", dir + "/mem"}, 2, "error: --capture and --dump exclude each other"},
        {{{"version", 2}}, {"env"}, 1, "error: @: capture version 2 (this vxtool reads version 1)\n"},
        {{{"format", "tarball"}}, {"env"}, 1, "error: @: not a capture (no \"format\": \"vx-capture\" in manifest.json)\n"},
    };
    for (const auto& row : rows) {
        fs::remove_all(dir + "/capture");
        const std::string capture = CaptureOf(player, row.change);
        std::vector<std::string> args = row.args;
        args.insert(args.begin() + 1, {"--capture", capture});
        const vxtest::RunResult r = vxtest::Vxtool(args);
        std::string expected = row.err_start;
        if (const auto at = expected.find('@'); at != std::string::npos)
            expected.replace(at, 1, capture);
        EXPECT_EQ(r.exit_status, row.status) << row.args[0] << " " << row.change.dump();
        if (expected.rfind("error: ", 0) == 0)
            EXPECT_EQ(r.err.rfind(expected, 0), 0u) << r.err;
        else
            EXPECT_NE(r.err.find(expected), std::string::npos) << r.err;
    }
    const vxtest::RunResult none = vxtest::Vxtool({"report", "--capture", dir + "/sys"});
    EXPECT_EQ(none.exit_status, 1);
    EXPECT_EQ(none.err.rfind("error: " + dir + "/sys: not a capture (", 0), 0u) << none.err;
}

// Run on a machine without flash (this one), a capture records what is
// absent, is complete once it has its name, and packs into a tar file that
// tar reads back; a destination that exists, of any kind, is refused, and a
// full or read-only file system leaves nothing behind.
TEST(VxtoolCapture, NewDirectoryOrNothing)
{
    VXTEST_REQUIRE_ISOLATION();
    if (fs::exists("/proc/mtd"))
        GTEST_SKIP() << "this machine has MTD partitions: a capture would read them";
    const vxtest::TempDir scratch;
    const std::string dir = scratch.Path() + "/unit";
    const vxtest::RunResult made = vxtest::Vxtool({"capture", "-o", dir, "--tar", scratch.Path() + "/unit.tar"});
    ASSERT_EQ(made.exit_status, 0) << made.err;
    const auto manifest = nlohmann::json::parse(vxtest::ReadFile(dir + "/manifest.json"));
    EXPECT_EQ(manifest["format"], "vx-capture");
    EXPECT_EQ(manifest["partitions"], nlohmann::json::array());
    EXPECT_EQ(manifest["files"]["/proc/mtd"], nullptr);
    EXPECT_EQ(manifest["files"]["/proc/meminfo"], "files/proc/meminfo");
    EXPECT_TRUE(manifest["absent"].contains("/proc/mtd"));
    EXPECT_TRUE(manifest["report"].contains("warnings"));
    const vxtest::RunResult listed = vxtest::Run("/usr/bin/tar", {"-xOf", scratch.Path() + "/unit.tar", "unit/manifest.json"});
    EXPECT_EQ(listed.out, vxtest::ReadFile(dir + "/manifest.json")) << listed.err;
    // Nothing else is left: no staging directory, no partial tar file.
    EXPECT_EQ(Tree(scratch.Path()).size(), Tree(dir).size() + 2);

    using vxtest::Hostile;
    const struct {
        Hostile kind;
        const char* at; // where the hostile thing is: the destination itself, or beside it
        std::string err;
    } rows[] = {
        {Hostile::Directory, "out", "error: @/out: already exists; a capture goes into a new directory\n"},
        {Hostile::Symlink, "out", "error: @/out: already exists; a capture goes into a new directory\n"},
        {Hostile::Fifo, "out", "error: @/out: already exists; a capture goes into a new directory\n"},
        {Hostile::FullFilesystem, "old", "No space left on device"},
        {Hostile::ReadOnlyFilesystem, "old", "error: @: Read-only file system"},
    };
    for (const auto& row : rows) {
        const vxtest::TempDir base;
        const vxtest::HostilePath hostile(row.kind, base.Path() + "/" + row.at);
        const vxtest::RunResult r = vxtest::Vxtool({"capture", "-o", base.Path() + "/out"});
        std::string err = row.err;
        if (const auto at = err.find('@'); at != std::string::npos)
            err.replace(at, 1, base.Path());
        EXPECT_EQ(r.exit_status, 1) << vxtest::Name(row.kind);
        EXPECT_NE(r.err.find(err), std::string::npos) << vxtest::Name(row.kind) << ": " << r.err;
        EXPECT_EQ(hostile.Faults(), "") << vxtest::Name(row.kind);
        if (std::string(row.at) != "out") {
            EXPECT_FALSE(fs::exists(base.Path() + "/out")) << vxtest::Name(row.kind);
        }
    }
}

} // namespace
