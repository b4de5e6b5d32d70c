// The registry: the client against the real service on a private bus, and
// against a stand-in that answers with chosen errors and replies of the wrong
// shape; the service where the world misbehaves: a disk that fills up or turns
// read-only, hostile files at its store and temporary file, a store that does
// not load, a directory others may write, requests too large or malformed.
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <regex>
#include <thread>

#include <dbus/dbus.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/registry_client.h"
#include "platform/registry_names.h"
#include "support/hostile_files.h"
#include "support/registry_bus.h"

namespace {

using Keys = std::map<std::string, std::string>;
using Sections = std::map<std::string, Keys>;
using vxtest::Failure;
using vxtest::Hostile;

const std::string ERRORS = "com.tessalabs.Registry.Errors.", FAILED = ERRORS + "Failed: ";

// The names in a directory, sorted.
std::vector<std::string> Entries(const std::string& dir)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

ino_t Inode(const std::string& path)
{
    struct stat st = {};
    return lstat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

class RegistryTest : public testing::Test {
protected:
    void SetUp() override { bus.StartService(store); }

    // What the store holds, as a restarted service loads it.
    Sections Stored()
    {
        bus.StartService(store);
        return nlohmann::json::parse(registry.ReadAllJson()).get<Sections>();
    }

    vxtest::TempDir dir;
    const std::string store = dir.Path() + "/registry.json";
    vxtest::RegistryBus& bus = vxtest::RegistryBus::Get();
    Registry& registry = *RegistryClientImpl::GetInstance();
};

// The service's own tests start it themselves, some on mounts of their own.
class RegistryService : public RegistryTest {
protected:
    void SetUp() override { VXTEST_REQUIRE_ISOLATION(); }
};

// The operations vxtool's registry commands do not make (its test has the others).
TEST_F(RegistryTest, ExistenceQueriesEmptyAndWideValuesReachTheStore)
{
    registry.Write("network", "empty", "");
    registry.Write("display", "title", "Gr\u00fc\u00dfe \u2603");
    EXPECT_TRUE(registry.KeyExists("network", "empty") && registry.SectionExists("display"));
    EXPECT_FALSE(registry.KeyExists("network", "mask") || registry.KeyExists("audio", "empty") ||
                 registry.SectionExists("audio"));
    EXPECT_EQ(registry.KeyList("audio"), Keys());
    registry.DeleteKey("network", "never");
    registry.Flush();
    EXPECT_EQ(Stored(), (Sections{{"display", {{"title", "Gr\u00fc\u00dfe \u2603"}}}, {"network", {{"empty", ""}}}}));
}

TEST_F(RegistryTest, InvalidUtf8IsRefusedBeforeAnythingIsSent)
{
    using S = const std::string&;
    const std::vector<std::function<void(S)>> calls = {
        [&](S s) { registry.WriteJson(s); },        [&](S s) { registry.Write(s, "k", "v"); },
        [&](S s) { registry.Write("s", s, "v"); },  [&](S s) { registry.Write("s", "k", s); },
        [&](S s) { registry.Read(s, "k"); },        [&](S s) { registry.Read("s", s); },
        [&](S s) { registry.KeyExists(s, "k"); },   [&](S s) { registry.KeyExists("s", s); },
        [&](S s) { registry.SectionExists(s); },    [&](S s) { registry.DeleteKey(s, "k"); },
        [&](S s) { registry.DeleteKey("s", s); },   [&](S s) { registry.DeleteSection(s); },
        [&](S s) { registry.KeyList(s); }};
    // A bad sequence, a stray continuation byte, an encoded surrogate, and a
    // NUL, which a D-Bus string cannot carry.
    for (S bad : std::vector<std::string>{"\xC3\x28", "ok\x80", "\xED\xA0\x80", {"a\0b", 3}}) {
        for (const auto& call : calls)
            EXPECT_EQ(Failure([&] { call(bad); }), "Registry::InvalidEncoding: Input data not valid UTF-8");
    }
    registry.Flush();
    EXPECT_EQ(bus.ServiceLog().substr(bus.ServiceLog().find('\n') + 1), "vx-registryd: Flush\n"); // the only request
}

// In a child process, a stand-in for the service: owns its name, answers
// Read(name, text) with the error of that name and text, SectionList with a
// string and every other call with an array of strings.
[[noreturn]] void ServeStandIn(int ready)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    DBusConnection* bus = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
    if (!bus || dbus_bus_request_name(bus, REGISTRY_BUS_NAME, 0, nullptr) != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER ||
        write(ready, "r", 1) != 1)
        _exit(1);
    const char* strings[] = {"wrong"};
    const char** array = strings;
    while (dbus_connection_read_write(bus, -1)) {
        while (DBusMessage* call = dbus_connection_pop_message(bus)) {
            const char *name = nullptr, *text = nullptr;
            DBusMessage* reply = nullptr;
            if (dbus_message_is_method_call(call, REGISTRY_INTERFACE, "Read") &&
                dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &text,
                                      DBUS_TYPE_INVALID)) {
                reply = dbus_message_new_error(call, name, text);
            } else {
                reply = dbus_message_new_method_return(call);
                if (dbus_message_is_method_call(call, REGISTRY_INTERFACE, "SectionList"))
                    dbus_message_append_args(reply, DBUS_TYPE_STRING, array, DBUS_TYPE_INVALID);
                else
                    dbus_message_append_args(reply, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &array, 1, DBUS_TYPE_INVALID);
            }
            dbus_connection_send(bus, reply, nullptr);
            dbus_message_unref(reply);
            dbus_message_unref(call);
        }
    }
    _exit(0);
}

TEST_F(RegistryTest, AStandInsErrorsMapByTheirNamesAndRepliesOfTheWrongShapePassThrough)
{
    bus.StopService();
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t pid = fork();
    if (pid == 0)
        ServeStandIn(ready[1]);
    close(ready[1]);
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    // The error names spelled out, not taken from the build's names.
    const std::vector<std::pair<std::string, std::string>> errors = {
        {"com.tessalabs.Registry.Errors.InvalidName", "Registry::InvalidName: Invalid name: InvalidName"},
        {"com.tessalabs.Registry.Errors.Full", "Registry::Full: Registry full"},
        {"com.tessalabs.Registry.Errors.InvalidJson", "Registry::InvalidJson: Invalid JSON format:Invalid JSON"},
        {"com.tessalabs.Registry.Errors.NotFound", "com.tessalabs.Registry.Errors.NotFound: the service's text"},
        {"com.veltrix.Registry.Errors.Full", "com.veltrix.Registry.Errors.Full: the service's text"}};
    for (const auto& error : errors)
        EXPECT_EQ(Failure([&] { registry.Read(error.first, "the service's text"); }), error.second) << error.first;
    EXPECT_EQ(Failure([&] { registry.SectionList(); }), "org.freedesktop.DBus.Error.InvalidArgs: array expected");
    EXPECT_EQ(Failure([&] { registry.KeyList("s"); }),
              "org.freedesktop.DBus.Error.InvalidArgs: dictionary value expected");
    vxtest::Reap(pid, SIGKILL);
}

TEST_F(RegistryTest, ConcurrentThreadsAndProcessesLoseNoUpdate)
{
    const std::string filler(2000, '.'); // long values, so that a torn one would show
    Sections expected;
    std::vector<pid_t> processes;
    std::vector<std::thread> threads;
    for (const std::string writer : {"p0", "p1", "p2", "t0", "t1", "t2", "t3"}) {
        for (int i = 0; i < 15; ++i)
            expected[writer]["k" + std::to_string(i)] = writer + "-" + std::to_string(i) + "-" + filler;
        if (writer[0] == 'p') {
            std::vector<std::string> command = {
                "/bin/sh", "-c",
                R"(w=$1 f=$2; shift 2; for i in $(seq 0 14); do "$@" registry set $w k$i $w-$i-$f || exit 1; done)",
                "sh", writer, filler};
            for (const std::string& word : vxtest::Built(VX_VXTOOL_PATH))
                command.push_back(word);
            processes.push_back(vxtest::Start(command, "/dev/null", dir.Path() + "/" + writer + ".log"));
            continue;
        }
        threads.emplace_back([&, writer, keys = expected[writer]] {
            for (const auto& [key, value] : keys)
                registry.Write(writer, key, value);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (const pid_t process : processes)
        EXPECT_EQ(vxtest::Reap(process), 0);
    EXPECT_EQ(Stored(), expected);
}

TEST_F(RegistryTest, AKillMidStreamLosesNoAcknowledgedWriteAndLeavesNothingHalfWritten)
{
    const std::string filler(10000, '.');
    Keys expected;
    // Ten kills, each a little later into a write (one takes a few milliseconds).
    for (int round = 0; round < 10; ++round) {
        std::atomic<std::size_t> acknowledged = expected.size();
        std::thread writer([&] {
            try {
                for (;; ++acknowledged)
                    registry.Write("stream", std::to_string(acknowledged), std::to_string(acknowledged) + filler);
            } catch (const DBus::Error&) {
            }
        });
        while (acknowledged < expected.size() + 5)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::this_thread::sleep_for(std::chrono::microseconds(500 * round));
        bus.StopService(SIGKILL);
        writer.join();
        // The write in flight may count, but whole.
        const Keys stored = Stored()["stream"];
        for (std::size_t i = expected.size(); i <= acknowledged; ++i) {
            if (i < acknowledged || stored.contains(std::to_string(i)))
                expected[std::to_string(i)] = std::to_string(i) + filler;
        }
        EXPECT_EQ(stored, expected) << "round " << round;
    }
}

TEST_F(RegistryService, OnAFullOrReadOnlyDiskItServesReadsAndRefusesWritesUntilItHasRoomAgain)
{
    const std::string stored = "{\n  \"net\": {\n    \"host\": \"p2\",\n    \"mtu\": \"1500\"\n  },\n"
                               "  \"old\": {\n    \"k\": \"v\"\n  }\n}\n";
    const std::vector<std::function<void()>> writes = {
        [&] { registry.Write("net", "host", "p3"); }, [&] { registry.WriteJson("{}"); },
        [&] { registry.DeleteKey("net", "mtu"); },    [&] { registry.DeleteSection("old"); },
        [&] { registry.DeleteAll(); }};
    for (const auto& [kind, reason] : {std::pair{Hostile::FullFilesystem, "No space left on device (errno 28)"},
                                       {Hostile::ReadOnlyFilesystem, "Read-only file system (errno 30)"}}) {
        SCOPED_TRACE(reason);
        vxtest::HostilePath disk(kind, store, stored); // over the fixture's directory, empty again after
        bus.StartService(store); // loading writes nothing
        EXPECT_EQ(registry.Read("net", "host"), "p2");
        for (const auto& write : writes)
            EXPECT_EQ(Failure(write), FAILED + store + ".tmp: " + reason);
        EXPECT_EQ(registry.ReadAllJson(), stored);
        EXPECT_EQ(disk.Faults(), ""); // the store as it was, no temporary file
        disk.Heal();
        registry.DeleteSection("old");
        bus.StartService(store);
        EXPECT_EQ(registry.ReadAllJson(), stored.substr(0, stored.find(",\n  \"old\"")) + "\n}\n");
    }
}

TEST_F(RegistryService, WhatDoesNotLoadIsSetAsideOnceAndTheRegistryStartsEmpty)
{
    const std::string json = "Invalid JSON format:";
    std::optional<vxtest::HostilePath> hostile;
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
    for (const Hostile kind : {Hostile::Fifo, Hostile::Symlink, Hostile::Directory}) {
        stores.emplace_back([&, kind](const std::string& path) { hostile.emplace(kind, path); },
                            kind == Hostile::Symlink ? "a symbolic link, not a regular file" : "not a regular file");
    }
    for (const auto& [plant, problem] : stores) {
        SCOPED_TRACE(problem);
        const vxtest::TempDir scratch;
        const std::string path = scratch.Path() + "/registry.json";
        plant(path);
        const ino_t inode = Inode(path);
        bus.StartService(path); // at once: a FIFO is not waited on
        EXPECT_EQ(registry.SectionList(), std::vector<std::string>());
        const std::string aside = Entries(scratch.Path()).back();
        EXPECT_TRUE(std::regex_match(aside, std::regex(R"(registry\.json\.corrupt-\d{8}T\d{6}Z)"))) << aside;
        EXPECT_EQ(Inode(scratch.Path() + "/" + aside), inode);
        EXPECT_NE(bus.ServiceLog().find("vx-registryd: " + path + ": " + problem + "; set aside as " + aside +
                                        ", starting with an empty registry\n"),
                  std::string::npos)
            << bus.ServiceLog();
        // Nothing read from the FIFO or written through the link; only the name changed.
        EXPECT_EQ(hostile ? hostile->Faults() : "", hostile ? "beside it were '', now '" + aside + " '; " : "");
        hostile.reset();
    }

    // On a read-only disk it stays where it is, and every change fails until it can be set aside.
    vxtest::HostilePath disk(Hostile::ReadOnlyFilesystem, store, "{");
    bus.StartService(store);
    EXPECT_NE(bus.ServiceLog().find("; it cannot be set aside (" + store + ": Read-only file system (errno 30)), so "
                                    "the registry starts empty and every change fails until it can\n"),
              std::string::npos);
    EXPECT_EQ(Failure([&] { registry.Write("s", "k", "v"); }), FAILED + store + ": Read-only file system (errno 30)");
    disk.Heal();
    registry.Write("s", "k", "v");
    const std::string aside = Entries(dir.Path()).back();
    EXPECT_EQ(Entries(dir.Path()).front() + " " + vxtest::ReadFile(dir.Path() + "/" + aside), "registry.json {");
    EXPECT_TRUE(bus.ServiceLog().ends_with("Write\nvx-registryd: " + store + " set aside as " + aside + "\n"));
}

TEST_F(RegistryService, RefusesADirectoryThatOthersMayWriteOrThatIsNotItsOwn)
{
    const std::vector<std::tuple<mode_t, uid_t, std::string>> directories = {
        {0770, 0, "may be written by group or others (mode 0770)"},
        {0702, 0, "may be written by group or others (mode 0702)"},
        {0700, 65534, "belongs to uid 65534, not to this service's uid 0"}};
    for (const auto& [mode, owner, problem] : directories) {
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
    const mode_t umask_before = umask(0); // the directory it makes has the service's own mode
    bus.StartService(dir.Path() + "/registry/registry.json");
    umask(umask_before);
    DBus::Connection connection = DBus::Connection::SystemBus();
    RegistryProxy proxy(connection); // the service's own texts, which the client drops
    proxy.Write("s", "k", "v");
    EXPECT_EQ(std::filesystem::status(dir.Path() + "/registry").permissions(), std::filesystem::perms::owner_all);
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
