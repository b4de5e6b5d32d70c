// The registry client against the real service on a private bus, and against
// a stand-in that answers with chosen errors and replies of the wrong shape.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include <dbus/dbus.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/registry_client.h"
#include "platform/registry_names.h"
#include "support/registry_bus.h"

namespace {

using Keys = std::map<std::string, std::string>;
using Sections = std::map<std::string, Keys>;
using vxtest::Failure;

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

TEST_F(RegistryTest, EveryOperationReachesTheStore)
{
    EXPECT_EQ(registry.SectionList(), std::vector<std::string>());
    EXPECT_EQ(registry.KeyList("network"), Keys());
    registry.Write("network", "hostname", "player-12");
    registry.Write("network", "empty", "");
    registry.Write("display", "title", "Gr\u00fc\u00dfe \u2603");
    EXPECT_EQ(registry.Read("network", "hostname") + registry.Read("network", "empty"), "player-12");
    EXPECT_TRUE(registry.KeyExists("network", "empty"));
    EXPECT_FALSE(registry.KeyExists("network", "mask") || registry.KeyExists("audio", "empty"));
    EXPECT_TRUE(registry.SectionExists("display") && !registry.SectionExists("audio"));
    EXPECT_EQ(registry.SectionList(), (std::vector<std::string>{"display", "network"}));
    EXPECT_EQ(registry.KeyList("network"), (Keys{{"empty", ""}, {"hostname", "player-12"}}));
    registry.DeleteKey("network", "empty");
    registry.DeleteKey("network", "never");
    registry.Flush();
    EXPECT_EQ(Stored(), (Sections{{"display", {{"title", "Gr\u00fc\u00dfe \u2603"}}},
                                  {"network", {{"hostname", "player-12"}}}}));
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
            processes.push_back(vxtest::Spawn(command, dir.Path() + "/" + writer + ".log"));
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

} // namespace
