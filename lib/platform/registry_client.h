// The registry client: every call goes to the registry service over D-Bus.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <dbus-c++/dbus.h>

#include "platform/registry.h"
#include "platform/registry_proxy_glue.h" // generated from the interface description
#include "platform/singleton.h"

// The service's object on the bus.
class RegistryProxy : public com::tessalabs::Registry_proxy,
                      public DBus::IntrospectableProxy,
                      public DBus::ObjectProxy {
public:
    explicit RegistryProxy(DBus::Connection& connection);
};

// The process's client, created on first use. It opens its own connection
// to the system bus (whose address libdbus takes from
// DBUS_SYSTEM_BUS_ADDRESS when set), keeps no cache and retries nothing.
// Every operation checks its string arguments with dbus_validate_utf8 first
// (InvalidEncoding, nothing sent), then makes one blocking call under the
// client's mutex. The service's InvalidName, Full and InvalidJson errors
// become the typed exceptions, with fixed texts; any other D-Bus error is
// rethrown as it came.
class RegistryClientImpl : public Registry, public corvid::AutoCreateSingleton<RegistryClientImpl> {
public:
    std::string ReadAllJson() override;
    void WriteJson(const std::string& json) override;
    std::string Read(const std::string& section, const std::string& key) override;
    void Write(const std::string& section, const std::string& key, const std::string& value) override;
    bool KeyExists(const std::string& section, const std::string& key) override;
    bool SectionExists(const std::string& section) override;
    void DeleteKey(const std::string& section, const std::string& key) override;
    void DeleteSection(const std::string& section) override;
    void DeleteAll() override;
    std::vector<std::string> SectionList() override;
    std::map<std::string, std::string> KeyList(const std::string& section) override;
    void Flush() override;

private:
    friend class corvid::AutoCreateSingleton<RegistryClientImpl>;
    RegistryClientImpl();

    template <typename Call>
    auto Locked(Call call);

    std::mutex m_mutex;
    DBus::Connection m_connection;
    RegistryProxy m_proxy;
};
