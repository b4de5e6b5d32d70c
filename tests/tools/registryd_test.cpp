// vx-registryd where the world misbehaves: a disk that fills up or turns
// read-only, hostile files at its store and temporary file, a store that does
// not load, a directory others may write, requests too large or malformed.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>

#include <gtest/gtest.h>

#include "platform/registry_client.h"
#include "platform/registry_names.h"
#include "support/hostile_paths.h"
#include "support/registry_bus.h"

namespace {

using vxtest::Failure;

const std::string ERRORS = "com.tessalabs.Registry.Errors.", FAILED = ERRORS + "Failed: ";

// The names in a directory but the disk's filler, sorted.
std::vector<std::string> Entries(const std::string& dir)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir))
        names.push_back(entry.path().filename().string());
    std::erase(names, "filler");
    std::sort(names.begin(), names.end());
    return names;
}

ino_t Inode(const std::string& path)
{
    struct stat st = {};
    return lstat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

class RegistryService : public testing::Test {
protected:
    void SetUp() override { VXTEST_REQUIRE_ISOLATION(); }

    vxtest::RegistryBus& bus = vxtest::RegistryBus::Get();
    Registry& registry = *RegistryClientImpl::GetInstance();
};

TEST_F(RegistryService, OnADiskThatIsFullThenReadOnlyThenFreedItServesReadsRefusesWritesAndKeepsWhatItAcknowledged)
{
    vxtest::SmallDisk disk(64 * 1024);
    const std::string dir = disk.Path() + "/registry", store = dir + "/registry.json";
    const mode_t umask_before = umask(0); // the directory's mode is the service's own
    bus.StartService(store);
    umask(umask_before);
    registry.Write("net", "host", "p1");
    registry.WriteJson(R"({"net": {"host": "p2", "mtu": "1500"}, "old": {"k": "v"}})");
    EXPECT_EQ(std::filesystem::status(dir).permissions(), std::filesystem::perms::owner_all);
    const std::string acknowledged = registry.ReadAllJson();
    const std::vector<std::function<void()>> writes = {
        [&] { registry.Write("net", "host", "p3"); }, [&] { registry.WriteJson("{}"); },
        [&] { registry.DeleteKey("net", "mtu"); },    [&] { registry.DeleteSection("old"); },
        [&] { registry.DeleteAll(); }};
    for (const std::string reason : {"No space left on device (errno 28)", "Read-only file system (errno 30)"}) {
        SCOPED_TRACE(reason);
        if (reason.starts_with("No space"))
            disk.Fill();
        else
            disk.SetReadOnly(true);
        bus.StartService(store); // loading writes nothing
        EXPECT_EQ(registry.Read("net", "host"), "p2");
        for (const auto& write : writes)
            EXPECT_EQ(Failure(write), FAILED + store + ".tmp: " + reason);
        EXPECT_EQ(registry.ReadAllJson(), acknowledged);
        EXPECT_EQ(Entries(dir), std::vector<std::string>{"registry.json"}); // no temporary file
    }
    disk.SetReadOnly(false);
    disk.Free();
    registry.DeleteSection("old");
    bus.StartService(store);
    EXPECT_EQ(registry.ReadAllJson(), "{\n  \"net\": {\n    \"host\": \"p2\",\n    \"mtu\": \"1500\"\n  }\n}\n");
}

TEST_F(RegistryService, WhatDoesNotLoadIsSetAsideOnceAndTheRegistryStartsEmpty)
{
    const vxtest::TempDir elsewhere;
    const std::string target = elsewhere.WriteFile("target", "{}", 0600);
    const std::string json = "Invalid JSON format:";
    const auto with = [](std::string text) { return [=](const std::string& path) { std::ofstream(path) << text; }; };
    std::vector<std::pair<std::function<void(const std::string&)>, std::string>> stores = {
        {with(R"({"net": {"host": )"), json + "[json.exception.parse_error.101] parse error at line 1, column 18: "
                                              "syntax error while parsing value - unexpected end of input; expected "
                                              "'[', '{', or a literal"},
        {with("[]"), json + "the document is not an object of sections"},
        {with(R"({"net": {"host": "p"}, "net": {}})"), json + "section 'net' appears twice"},
        {with(R"({"s": {"k": 1}})"), json + "the value of 's.k' is not a string"},
        {[](const std::string& path) {
             std::ofstream(path).close();
             ASSERT_EQ(truncate(path.c_str(), 300'000'000), 0);
         },
         "300000000 bytes or more, larger than a registry's file (16777216 bytes)"}};
    for (const vxtest::HostileKind kind : vxtest::HOSTILE_KINDS) {
        stores.emplace_back([&, kind](const std::string& path) { vxtest::Plant(kind, path, target); },
                            kind == vxtest::HostileKind::Symlink ? "a symbolic link, not a regular file"
                                                            : "not a regular file");
    }
    for (const auto& [plant, problem] : stores) {
        SCOPED_TRACE(problem);
        const vxtest::TempDir dir;
        plant(dir.Path() + "/registry.json");
        const ino_t inode = Inode(dir.Path() + "/registry.json");
        bus.StartService(dir.Path() + "/registry.json"); // at once: a FIFO is not waited on
        EXPECT_EQ(registry.SectionList(), std::vector<std::string>());
        const std::string aside = Entries(dir.Path()).back();
        EXPECT_TRUE(std::regex_match(aside, std::regex(R"(registry\.json\.corrupt-\d{8}T\d{6}Z)"))) << aside;
        EXPECT_EQ(Inode(dir.Path() + "/" + aside), inode);
        EXPECT_NE(bus.ServiceLog().find("vx-registryd: " + dir.Path() + "/registry.json: " + problem +
                                        "; set aside as " + aside + ", starting with an empty registry\n"),
                  std::string::npos)
            << bus.ServiceLog();
    }
    EXPECT_EQ(vxtest::ReadFile(target), "{}");

    // On a read-only disk it stays where it is, and every change fails until it can be set aside.
    vxtest::SmallDisk disk(64 * 1024);
    const std::string store = disk.Path() + "/registry.json";
    std::ofstream(store) << "{";
    disk.SetReadOnly(true);
    bus.StartService(store);
    EXPECT_NE(bus.ServiceLog().find("; it cannot be set aside (" + store + ": Read-only file system (errno 30)), so "
                                    "the registry starts empty and every change fails until it can\n"),
              std::string::npos);
    EXPECT_EQ(Failure([&] { registry.Write("s", "k", "v"); }), FAILED + store + ": Read-only file system (errno 30)");
    disk.SetReadOnly(false);
    registry.Write("s", "k", "v");
    const std::string aside = Entries(disk.Path()).back();
    EXPECT_EQ(Entries(disk.Path()).front() + " " + vxtest::ReadFile(disk.Path() + "/" + aside), "registry.json {");
    EXPECT_TRUE(bus.ServiceLog().ends_with("Write\nvx-registryd: " + store + " set aside as " + aside + "\n"));
}

TEST_F(RegistryService, AThingAtTheTemporaryFilesNameIsRemovedNeverFollowed)
{
    const vxtest::TempDir dir, elsewhere;
    const std::string store = dir.Path() + "/registry.json", target = elsewhere.WriteFile("target", "{}", 0600);
    bus.StartService(store);
    for (const vxtest::HostileKind kind : vxtest::HOSTILE_KINDS) {
        SCOPED_TRACE(static_cast<int>(kind));
        vxtest::Plant(kind, store + ".tmp", target);
        const bool directory = kind == vxtest::HostileKind::Directory; // never removed: the change fails
        EXPECT_EQ(Failure([&] { registry.Write("s", "k", "v"); }),
                  directory ? FAILED + store + ".tmp: Is a directory (errno 21)" : "none");
        EXPECT_EQ(std::filesystem::symlink_status(store + ".tmp").type(),
                  directory ? std::filesystem::file_type::directory : std::filesystem::file_type::not_found);
    }
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(store)));
    EXPECT_EQ(vxtest::ReadFile(target), "{}");
}

TEST(RegistryServiceStart, RefusesADirectoryThatOthersMayWriteOrThatIsNotItsOwn)
{
    VXTEST_REQUIRE_ISOLATION();
    const std::vector<std::tuple<mode_t, uid_t, std::string>> directories = {
        {0770, 0, "may be written by group or others (mode 0770)"},
        {0702, 0, "may be written by group or others (mode 0702)"},
        {0700, 65534, "belongs to uid 65534, not to this service's uid 0"}};
    for (const auto& [mode, owner, problem] : directories) {
        const vxtest::TempDir dir;
        ASSERT_EQ(chmod(dir.Path().c_str(), mode) | chown(dir.Path().c_str(), owner, 0), 0);
        // Were it to start, it would find no bus and end.
        std::vector<std::string> command = vxtest::Built(VX_REGISTRYD_PATH, {"--store", dir.Path() + "/registry.json"});
        command.insert(command.begin(), {"/usr/bin/env", "DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent"});
        const vxtest::RunResult r = vxtest::Run(command);
        EXPECT_EQ(std::to_string(r.exit_status) + ":" + r.err,
                  "1:vx-registryd: " + dir.Path() + ": the store's directory " + problem + "\n");
    }
}

TEST_F(RegistryService, ErrorsNameTheRuleAndRepeatOnlyAnExcerptOfTheRequestInValidUtf8)
{
    const vxtest::TempDir dir;
    bus.StartService(dir.Path() + "/registry.json");
    DBus::Connection connection = DBus::Connection::SystemBus();
    RegistryProxy proxy(connection); // the service's own texts, which the client drops
    proxy.Write("s", "k", "v");
    const std::string before = proxy.ReadAllJson(), huge(30'000'000, 'k'), excerpt = std::string(128, 'k') + "...";
    std::string euros; // 50 characters of 3 bytes: the excerpt stops before the 43rd
    while (euros.size() < 150)
        euros += "\u20ac";
    const std::vector<std::pair<std::function<void()>, std::string>> requests = {
        {[&] { proxy.Write("", "k", "v"); }, "InvalidName: Invalid name: "},
        {[&] { proxy.Read("s", huge); }, "InvalidName: Invalid name: " + excerpt},
        {[&] { proxy.Read("s", euros); }, "InvalidName: Invalid name: " + euros.substr(0, 126) + "..."},
        {[&] { proxy.WriteJson(R"({"a": {}, ")" + huge + "\": {}}"); }, "InvalidName: Invalid name: " + excerpt},
        {[&] { proxy.Read("s", "missing"); }, "NotFound: No key 'missing' in section 's'"},
        // Names and values may take 1 MiB together; "s", "k" and "v" hold 3 bytes.
        {[&] { proxy.Write("s", "b", std::string((1 << 20) - 3, 'x')); }, "Full: Registry full"},
        {[&] { proxy.WriteJson("{\"s\": {\"k\": \"" + huge + "\"}}"); }, "Full: Registry full"},
        {[&] { proxy.WriteJson("{\"a\": \xc3\xbc}"); },
         "InvalidJson: Invalid JSON format:[json.exception.parse_error.101] parse error at line 1, column 7: syntax "
         "error while parsing value - invalid literal; last read: '\"a\": ?'"}};
    for (const auto& [request, reply] : requests)
        EXPECT_EQ(Failure(request), ERRORS + reply);
    EXPECT_EQ(proxy.ReadAllJson(), before);
    proxy.Write("s", "b", std::string((1 << 20) - 4, 'x'));
}

} // namespace
