// The device's registry: named sections, each holding named keys with string
// values, kept by the registry service and imported and exported whole as
// JSON. RegistryClientImpl (platform/registry_client.h) reaches the service
// over D-Bus.
#pragma once

#include <exception>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

class Registry {
public:
    // A section or key name the registry refuses.
    class InvalidName : public std::exception {
    public:
        explicit InvalidName(const std::string& name) : m_message("Invalid name: " + name), m_name(name) {}
        const char* what() const noexcept override { return m_message.c_str(); }
        const std::string& GetName() const noexcept { return m_name; }

    private:
        std::string m_message;
        std::string m_name;
    };

    // A document that is not the registry's JSON.
    class InvalidJson : public std::exception {
    public:
        explicit InvalidJson(const std::string& text) : m_message("Invalid JSON format:" + text), m_text(text) {}
        const char* what() const noexcept override { return m_message.c_str(); }
        const std::string& GetText() const noexcept { return m_text; }

    private:
        std::string m_message;
        std::string m_text;
    };

    // A change that would take the registry past its size limit.
    class Full : public std::runtime_error {
    public:
        Full() : std::runtime_error("Registry full") {}
    };

    // An argument that is not valid UTF-8; nothing was sent.
    class InvalidEncoding : public std::runtime_error {
    public:
        InvalidEncoding() : std::runtime_error("Input data not valid UTF-8") {}
    };

    virtual ~Registry() = default;

    virtual std::string ReadAllJson() = 0;
    virtual void WriteJson(const std::string& json) = 0;
    virtual std::string Read(const std::string& section, const std::string& key) = 0;
    virtual void Write(const std::string& section, const std::string& key, const std::string& value) = 0;
    virtual bool KeyExists(const std::string& section, const std::string& key) = 0;
    virtual bool SectionExists(const std::string& section) = 0;
    virtual void DeleteKey(const std::string& section, const std::string& key) = 0;
    virtual void DeleteSection(const std::string& section) = 0;
    virtual void DeleteAll() = 0;
    virtual std::vector<std::string> SectionList() = 0;
    virtual std::map<std::string, std::string> KeyList(const std::string& section) = 0;
    virtual void Flush() = 0;
};
