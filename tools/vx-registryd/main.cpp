// vx-registryd: the registry service. It owns the registry's store and serves
// it on the system bus (on the bus at DBUS_SYSTEM_BUS_ADDRESS when that is
// set), one request at a time, until SIGTERM or SIGINT.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <dbus-c++/dbus.h>
#include <dbus/dbus.h>

#include "platform/handles.h"
#include "platform/posix_helpers.h"
#include "platform/registry_names.h"
#include "platform/trace.h"
#include "registry_adaptor_glue.h" // generated from the interface description
#include "registry_store.h"

namespace {

constexpr const char* USAGE = "usage: vx-registryd [--store FILE] [--verbose]\n";
// The longest text of an error reply.
constexpr std::size_t MAX_REPLY_TEXT = 512;

// The service's object: every method runs on the store, whose failures go
// back as the registry's D-Bus errors. With verbose, each request is logged
// on standard error by its member name.
class RegistryService final : public com::tessalabs::Registry_adaptor,
                              public DBus::IntrospectableAdaptor,
                              public DBus::ObjectAdaptor {
public:
    RegistryService(DBus::Connection& connection, RegistryStore& store, bool verbose)
        : DBus::ObjectAdaptor(connection, REGISTRY_OBJECT_PATH), m_store(store), m_verbose(verbose)
    {
    }

    std::string ReadAllJson() override
    {
        return Serve("ReadAllJson", [&] { return m_store.ReadAllJson(); });
    }
    void WriteJson(const std::string& json) override
    {
        Serve("WriteJson", [&] { m_store.WriteJson(json); });
    }
    std::string Read(const std::string& section, const std::string& key) override
    {
        return Serve("Read", [&] { return m_store.Read(section, key); });
    }
    void Write(const std::string& section, const std::string& key, const std::string& value) override
    {
        Serve("Write", [&] { m_store.Write(section, key, value); });
    }
    bool KeyExists(const std::string& section, const std::string& key) override
    {
        return Serve("KeyExists", [&] { return m_store.KeyExists(section, key); });
    }
    bool SectionExists(const std::string& section) override
    {
        return Serve("SectionExists", [&] { return m_store.SectionExists(section); });
    }
    void DeleteKey(const std::string& section, const std::string& key) override
    {
        Serve("DeleteKey", [&] { m_store.DeleteKey(section, key); });
    }
    void DeleteSection(const std::string& section) override
    {
        Serve("DeleteSection", [&] { m_store.DeleteSection(section); });
    }
    void DeleteAll() override
    {
        Serve("DeleteAll", [&] { m_store.DeleteAll(); });
    }
    std::vector<std::string> SectionList() override
    {
        return Serve("SectionList", [&] { return m_store.SectionList(); });
    }
    std::map<std::string, std::string> KeyList(const std::string& section) override
    {
        return Serve("KeyList", [&] { return m_store.KeyList(section); });
    }
    void Flush() override
    {
        Serve("Flush", [&] { m_store.Flush(); });
    }

private:
    template <typename Call>
    auto Serve(const char* member, Call call) -> decltype(call())
    {
        if (m_verbose)
            corvid::PrintGuarded("vx-registryd: {}\n", member);
        const char* error = REGISTRY_ERROR_FAILED;
        try {
            return call();
        } catch (const Registry::InvalidName& e) {
            error = REGISTRY_ERROR_INVALID_NAME;
            m_message = e.what();
        } catch (const Registry::Full& e) {
            error = REGISTRY_ERROR_FULL;
            m_message = e.what();
        } catch (const Registry::InvalidJson& e) {
            error = REGISTRY_ERROR_INVALID_JSON;
            m_message = e.what();
        } catch (const RegistryStore::NotFound& e) {
            error = REGISTRY_ERROR_NOT_FOUND;
            m_message = e.what();
        } catch (const std::exception& e) {
            m_message = e.what();
        }
        // The binding's error keeps the pointers it is given: the text lives
        // here until the reply has gone, before the next request. A reply
        // repeats no more of the request than an excerpt, in valid UTF-8.
        m_message = Excerpt(m_message, MAX_REPLY_TEXT);
        throw DBus::Error(error, m_message.c_str());
    }

    RegistryStore& m_store;
    bool m_verbose;
    std::string m_message;
};

// SIGTERM and SIGINT end the loop: the flag, and a byte on a pipe that the
// loop polls, so that a signal that comes just before the poll is not missed.
volatile std::sig_atomic_t g_stop = 0;
int g_wake_fd = -1;

extern "C" void OnStopSignal(int)
{
    g_stop = 1;
    const char byte = 0;
    [[maybe_unused]] const ssize_t written = ::write(g_wake_fd, &byte, 1);
}

// Whether this connection is the primary owner of the service's name.
bool OwnsName(DBus::Connection& connection)
{
    DBus::CallMessage call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "GetNameOwner");
    DBus::MessageIter arguments = call.writer();
    arguments << std::string(REGISTRY_BUS_NAME);
    const DBus::Message reply = connection.send_blocking(call);
    std::string owner;
    DBus::MessageIter result = reply.reader();
    result >> owner;
    return owner == connection.unique_name();
}

int Run(const std::string& store_path, bool verbose)
{
    RegistryStore store(store_path);
    auto* dispatcher = dynamic_cast<DBus::BusDispatcher*>(DBus::default_dispatcher);
    if (!dispatcher)
        throw std::runtime_error("no D-Bus dispatcher");
    DBus::Connection connection = DBus::Connection::SystemBus();
    RegistryService service(connection, store, verbose);
    connection.request_name(REGISTRY_BUS_NAME, DBUS_NAME_FLAG_DO_NOT_QUEUE);
    if (!OwnsName(connection)) {
        corvid::PrintGuarded("vx-registryd: {} is served by another process\n", REGISTRY_BUS_NAME);
        return 1;
    }

    int wake[2];
    if (::pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0)
        throw corvid::ErrnoException(errno, "pipe2");
    const corvid::UniqueFd wake_read(wake[0]), wake_write(wake[1]);
    g_wake_fd = wake_write.Get();
    struct sigaction action = {};
    action.sa_handler = OnStopSignal;
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    const DBus::DefaultWatch wake_watch(wake_read.Get(), POLLIN, dispatcher);

    corvid::PrintGuarded("vx-registryd: serving {} from {}\n", REGISTRY_BUS_NAME, store_path);
    while (!g_stop)
        dispatcher->do_iteration();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    std::string store = "/var/lib/vx-registry/registry.json";
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--store" && i + 1 < argc) {
            store = argv[++i];
        } else if (arg == "--verbose") {
            verbose = true;
        } else if (arg == "--help" || arg == "-h") {
            std::fputs(USAGE, stdout);
            return 0;
        } else {
            std::fputs(USAGE, stderr);
            return 2;
        }
    }
    try {
        return Run(store, verbose);
    } catch (const std::exception& e) {
        corvid::PrintGuarded("vx-registryd: {}\n", e.what());
        return 1;
    }
}
