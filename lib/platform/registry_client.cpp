#include "platform/registry_client.h"

#include <initializer_list>
#include <string_view>

#include <dbus/dbus.h>

#include "platform/registry_names.h"

namespace {

// D-Bus strings are UTF-8 without NUL bytes: a NUL would cut the string
// short on the wire, so it is refused like a bad byte sequence.
void CheckEncoding(std::initializer_list<const std::string*> arguments)
{
    for (const std::string* argument : arguments) {
        if (argument->find('\0') != std::string::npos || !dbus_validate_utf8(argument->c_str(), nullptr))
            throw Registry::InvalidEncoding();
    }
}

} // namespace

RegistryProxy::RegistryProxy(DBus::Connection& connection)
    : DBus::ObjectProxy(connection, REGISTRY_OBJECT_PATH, REGISTRY_BUS_NAME)
{
}

RegistryClientImpl::RegistryClientImpl() : m_connection(DBus::Connection::SystemBus()), m_proxy(m_connection) {}

// Runs one call of the proxy under the mutex; the service's own message is
// dropped from the mapped errors.
template <typename Call>
auto RegistryClientImpl::Locked(Call call)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    try {
        return call();
    } catch (const DBus::Error& e) {
        const std::string_view name = e.name() ? e.name() : "";
        if (name == REGISTRY_ERROR_INVALID_NAME)
            throw InvalidName("InvalidName");
        if (name == REGISTRY_ERROR_FULL)
            throw Full();
        if (name == REGISTRY_ERROR_INVALID_JSON)
            throw InvalidJson("Invalid JSON");
        throw;
    }
}

std::string RegistryClientImpl::ReadAllJson()
{
    return Locked([&] { return m_proxy.ReadAllJson(); });
}

void RegistryClientImpl::WriteJson(const std::string& json)
{
    CheckEncoding({&json});
    Locked([&] { m_proxy.WriteJson(json); });
}

std::string RegistryClientImpl::Read(const std::string& section, const std::string& key)
{
    CheckEncoding({&section, &key});
    return Locked([&] { return m_proxy.Read(section, key); });
}

void RegistryClientImpl::Write(const std::string& section, const std::string& key, const std::string& value)
{
    CheckEncoding({&section, &key, &value});
    Locked([&] { m_proxy.Write(section, key, value); });
}

bool RegistryClientImpl::KeyExists(const std::string& section, const std::string& key)
{
    CheckEncoding({&section, &key});
    return Locked([&] { return m_proxy.KeyExists(section, key); });
}

bool RegistryClientImpl::SectionExists(const std::string& section)
{
    CheckEncoding({&section});
    return Locked([&] { return m_proxy.SectionExists(section); });
}

void RegistryClientImpl::DeleteKey(const std::string& section, const std::string& key)
{
    CheckEncoding({&section, &key});
    Locked([&] { m_proxy.DeleteKey(section, key); });
}

void RegistryClientImpl::DeleteSection(const std::string& section)
{
    CheckEncoding({&section});
    Locked([&] { m_proxy.DeleteSection(section); });
}

void RegistryClientImpl::DeleteAll()
{
    Locked([&] { m_proxy.DeleteAll(); });
}

std::vector<std::string> RegistryClientImpl::SectionList()
{
    return Locked([&] { return m_proxy.SectionList(); });
}

std::map<std::string, std::string> RegistryClientImpl::KeyList(const std::string& section)
{
    CheckEncoding({&section});
    return Locked([&] { return m_proxy.KeyList(section); });
}

void RegistryClientImpl::Flush()
{
    Locked([&] { m_proxy.Flush(); });
}
