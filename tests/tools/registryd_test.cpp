// vx-registryd where the world around it misbehaves: a disk that fills up or
// turns read-only, hostile files at its store and its temporary file, a
// store that does not load, a directory that others may write, requests too
// large or not UTF-8, a client that leaves in the middle of a call.
#include <dbus/dbus.h>
#include <sys/stat.h>
#include <sys/wait.h>
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

const std::string FAILED = "com.tessalabs.Registry.Errors.Failed: ";

// The names in a directory, sorted; the disk's filler left out.
std::vector<std::string> Entries(const std::string& dir)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().filename() != "filler")
            names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The one name in dir, which must be the store set aside; checks the service's report of it.
std::string SetAside(const std::string& dir, const std::string& log, const std::string& problem)
{
    const std::vector<std::string> entries = Entries(dir);
    const std::string aside = entries.size() == 1 ? entries[0] : "?";
    EXPECT_TRUE(std::regex_match(aside, std::regex(R"(registry\.json\.corrupt-\d{8}T\d{6}Z)"))) << aside;
    EXPECT_NE(log.find("vx-registryd: " + dir + "/registry.json: " + problem + "; set aside as " + aside +
                       ", starting with an empty registry\n"),
              std::string::npos)
        << log;
    return dir + "/" + aside;
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
    struct stat st = {};
    ASSERT_EQ(stat(dir.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
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

TEST_F(RegistryService, AHostileFileAtTheStoreIsSetAsideAndOneAtTheTemporaryFileIsReplacedNeverFollowed)
{
    for (const vxtest::Hostile kind : vxtest::HOSTILE_KINDS) {
        SCOPED_TRACE(vxtest::Name(kind));
        const vxtest::TempDir dir;
        const std::string store = dir.Path() + "/registry.json";
        const vxtest::TempDir elsewhere;
        const std::string target = elsewhere.WriteFile("target", "{\"s\": {}}", 0600);
        vxtest::Plant(kind, store, target);
        bus.StartService(store); // at once: a FIFO is not waited on
        EXPECT_EQ(registry.ReadAllJson(), "{}\n");
        const std::string aside = SetAside(
            dir.Path(), bus.ServiceLog(),
            kind == vxtest::Hostile::Symlink ? "a symbolic link, not a regular file" : "not a regular file");
        EXPECT_EQ(vxtest::FileType(aside), vxtest::FileType(kind));

        vxtest::Plant(kind, store + ".tmp", target);
        if (kind == vxtest::Hostile::Directory) {
            EXPECT_EQ(Failure([&] { registry.Write("s", "k", "v"); }), FAILED + store + ".tmp: Is a directory (errno 21)");
            EXPECT_EQ(vxtest::FileType(store), -1);
        } else {
            registry.Write("s", "k", "v");
            EXPECT_EQ(vxtest::FileType(store), S_IFREG);
            EXPECT_EQ(vxtest::FileType(store + ".tmp"), -1);
        }
        EXPECT_EQ(vxtest::ReadFile(target), "{\"s\": {}}");
    }
}

TEST_F(RegistryService, AStoreThatDoesNotLoadIsSetAsideOnceAndTheRegistryStartsEmpty)
{
    const std::string full_value(1 << 20, 'x'); // with the names, one byte past the registry's limit
    const std::string json = "Invalid JSON format:", syntax = json + "[json.exception.parse_error.101] parse error at line 1, ";
    const std::vector<std::pair<std::string, std::string>> stores = {
        {R"({"net": {"host": )", syntax + "column 18: syntax error while parsing value - unexpected end of input; "
                                          "expected '[', '{', or a literal"},
        {"{\"s\": {\"k\": \"\xff\"}}", syntax + "column 14: syntax error while parsing value - invalid string: "
                                                "ill-formed UTF-8 byte; last read: '\"?'"},
        {"[]", json + "the document is not an object of sections"},
        {R"({"net": {"host": "p"}, "net": {}})", json + "section 'net' appears twice"},
        {R"({"s": {"k": 1}})", json + "the value of 's.k' is not a string"},
        {R"({"a b": {}})", "Invalid name: a b"},
        {R"({"s": {"k": ")" + full_value + "\"}}", "Registry full"}};
    for (const auto& [content, problem] : stores) {
        SCOPED_TRACE(problem);
        const vxtest::TempDir dir;
        dir.WriteFile("registry.json", content);
        bus.StartService(dir.Path() + "/registry.json");
        EXPECT_EQ(registry.SectionList(), std::vector<std::string>());
        EXPECT_EQ(vxtest::ReadFile(SetAside(dir.Path(), bus.ServiceLog(), problem)), content);
    }
    // Too large to be a registry's file: refused before it is read, whatever it holds.
    const vxtest::TempDir dir;
    ASSERT_EQ(truncate(dir.WriteFile("registry.json", "").c_str(), 300'000'000), 0);
    bus.StartService(dir.Path() + "/registry.json");
    EXPECT_EQ(std::filesystem::file_size(SetAside(dir.Path(), bus.ServiceLog(),
                                                  "300000000 bytes or more, larger than a registry's file "
                                                  "(16777216 bytes)")),
              300'000'000u);
}

TEST_F(RegistryService, AStoreThatCannotBeSetAsideStaysAndEveryChangeFailsUntilItCan)
{
    vxtest::SmallDisk disk(64 * 1024);
    const std::string store = disk.Path() + "/registry.json";
    std::ofstream(store) << "{";
    disk.SetReadOnly(true);
    bus.StartService(store);
    EXPECT_NE(bus.ServiceLog().find("; it cannot be set aside (" + store +
                                    ": Read-only file system (errno 30)), so the registry starts empty and every "
                                    "change fails until it can\n"),
              std::string::npos);
    EXPECT_EQ(registry.ReadAllJson(), "{}\n");
    EXPECT_EQ(Failure([&] { registry.Write("s", "k", "v"); }), FAILED + store + ": Read-only file system (errno 30)");
    disk.SetReadOnly(false);
    registry.Write("s", "k", "v");
    const std::vector<std::string> entries = Entries(disk.Path());
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0], "registry.json");
    EXPECT_EQ(vxtest::ReadFile(disk.Path() + "/" + entries[1]), "{");
}

TEST(RegistryServiceStart, RefusesADirectoryThatOthersMayWriteOrThatIsNotItsOwn)
{
    VXTEST_REQUIRE_ISOLATION();
    const std::vector<std::tuple<mode_t, uid_t, std::string>> directories = {
        {0770, 0, "may be written by group or others (mode 0770)"},
        {0702, 0, "may be written by group or others (mode 0702)"},
        {01777, 0, "may be written by group or others (mode 1777)"},
        {0700, 65534, "belongs to uid 65534, not to this service's uid 0"}};
    for (const auto& [mode, owner, problem] : directories) {
        const vxtest::TempDir dir;
        ASSERT_EQ(chmod(dir.Path().c_str(), mode) | chown(dir.Path().c_str(), owner, 0), 0);
        // Were it to start, it would find no bus and end.
        std::vector<std::string> command = {"/usr/bin/env", "DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent"};
        for (const std::string& word : vxtest::Built(VX_REGISTRYD_PATH, {"--store", dir.Path() + "/registry.json"}))
            command.push_back(word);
        const vxtest::RunResult r = vxtest::Run(command);
        EXPECT_EQ(std::to_string(r.exit_status) + ":" + r.err,
                  "1:vx-registryd: " + dir.Path() + ": the store's directory " + problem + "\n");
    }
}

// In a child process: sends a call on a connection of its own and exits
// without waiting for the reply.
void SendAndLeave(const char* member, const std::string& argument)
{
    const pid_t pid = fork();
    if (pid == 0) {
        DBusConnection* bus = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
        DBusMessage* call = dbus_message_new_method_call(REGISTRY_BUS_NAME, REGISTRY_OBJECT_PATH, REGISTRY_INTERFACE, member);
        const char* text = argument.c_str();
        dbus_message_append_args(call, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        _exit(bus && dbus_connection_send(bus, call, nullptr) ? (dbus_connection_flush(bus), 0) : 1);
    }
    EXPECT_EQ(vxtest::Reap(pid), 0);
}

TEST_F(RegistryService, RepliesRepeatAnExcerptInValidUtf8AndAClientThatLeavesMidCallHurtsNothing)
{
    const vxtest::TempDir dir;
    bus.StartService(dir.Path() + "/registry.json");
    DBus::Connection connection = DBus::Connection::SystemBus();
    RegistryProxy proxy(connection);
    const std::string long_name(30'000'000, 'k'), excerpt = std::string(128, 'k') + "...";
    const std::vector<std::pair<std::function<void()>, std::string>> requests = {
        {[&] { proxy.Read("s", long_name); }, "InvalidName: Invalid name: " + excerpt},
        {[&] { proxy.WriteJson("{\"" + long_name + "\": {}}"); }, "InvalidName: Invalid name: " + excerpt},
        {[&] { proxy.WriteJson("{\"s\": {\"k\": \"" + long_name + "\"}}"); }, "Full: Registry full"},
        {[&] { proxy.WriteJson("{\"a\": \xc3\xbc}"); },
         "InvalidJson: Invalid JSON format:[json.exception.parse_error.101] parse error at line 1, column 7: syntax "
         "error while parsing value - invalid literal; last read: '\"a\": ?'"}};
    for (const auto& [request, reply] : requests)
        EXPECT_EQ(Failure(request), "com.tessalabs.Registry.Errors." + reply);
    SendAndLeave("WriteJson", R"({"s": {"k": "from a client that left"}})");
    EXPECT_EQ(registry.Read("s", "k"), "from a client that left");
}

} // namespace
