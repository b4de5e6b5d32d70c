#include "registry_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <utility>

#include <nlohmann/json.hpp>

#include "platform/posix_helpers.h"

namespace {

void CheckName(const std::string& name)
{
    bool valid = !name.empty() && name.size() <= RegistryStore::MAX_NAME_LENGTH;
    for (const char c : name) {
        valid = valid && ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                          c == '.' || c == '_' || c == '-');
    }
    if (!valid)
        throw Registry::InvalidName(name);
}

std::string TemporaryPath(const std::string& path)
{
    return path + ".tmp";
}

void SyncOrThrow(int fd, const std::string& path)
{
    if (::fsync(fd) != 0)
        throw corvid::ErrnoException(errno, path);
}

} // namespace

RegistryStore::RegistryStore(std::string path) : m_path(std::move(path))
{
    const std::filesystem::path directory = std::filesystem::path(m_path).parent_path();
    if (!directory.empty())
        std::filesystem::create_directories(directory);
    std::filesystem::remove(TemporaryPath(m_path));
    if (!std::filesystem::exists(m_path))
        return;
    try {
        WriteJson(corvid::ReadWholeFile(m_path));
    } catch (const std::exception& e) {
        throw std::runtime_error(m_path + ": " + e.what());
    }
}

std::string RegistryStore::ToJson(const Sections& sections)
{
    nlohmann::json document = nlohmann::json::object();
    for (const auto& [section, keys] : sections)
        document[section] = keys;
    return document.dump(2) + "\n";
}

std::string RegistryStore::ReadAllJson()
{
    return ToJson(m_sections);
}

void RegistryStore::WriteJson(const std::string& json)
{
    nlohmann::json document;
    try {
        document = nlohmann::json::parse(json);
    } catch (const nlohmann::json::parse_error& e) {
        throw InvalidJson(e.what());
    }
    if (!document.is_object())
        throw InvalidJson("the document is not an object of sections");
    Sections next;
    for (const auto& [section, keys] : document.items()) {
        if (!keys.is_object())
            throw InvalidJson("section '" + section + "' is not an object of keys");
        auto& target = next[section];
        for (const auto& [key, value] : keys.items()) {
            if (!value.is_string())
                throw InvalidJson("the value of '" + section + "." + key + "' is not a string");
            target[key] = value.get<std::string>();
        }
    }
    Commit(std::move(next));
}

std::string RegistryStore::Read(const std::string& section, const std::string& key)
{
    CheckName(section);
    CheckName(key);
    const auto s = m_sections.find(section);
    if (s != m_sections.end()) {
        if (const auto k = s->second.find(key); k != s->second.end())
            return k->second;
    }
    throw NotFound("No key '" + key + "' in section '" + section + "'");
}

void RegistryStore::Write(const std::string& section, const std::string& key, const std::string& value)
{
    Sections next = m_sections;
    next[section][key] = value;
    Commit(std::move(next));
}

bool RegistryStore::KeyExists(const std::string& section, const std::string& key)
{
    CheckName(key);
    return SectionExists(section) && m_sections.at(section).contains(key);
}

bool RegistryStore::SectionExists(const std::string& section)
{
    CheckName(section);
    return m_sections.contains(section);
}

void RegistryStore::DeleteKey(const std::string& section, const std::string& key)
{
    if (KeyExists(section, key)) {
        Sections next = m_sections;
        next[section].erase(key);
        Commit(std::move(next));
    }
}

void RegistryStore::DeleteSection(const std::string& section)
{
    if (SectionExists(section)) {
        Sections next = m_sections;
        next.erase(section);
        Commit(std::move(next));
    }
}

void RegistryStore::DeleteAll()
{
    Commit({});
}

std::vector<std::string> RegistryStore::SectionList()
{
    std::vector<std::string> sections;
    for (const auto& entry : m_sections)
        sections.push_back(entry.first);
    return sections;
}

std::map<std::string, std::string> RegistryStore::KeyList(const std::string& section)
{
    return SectionExists(section) ? m_sections.at(section) : std::map<std::string, std::string>();
}

void RegistryStore::Commit(Sections next)
{
    std::size_t size = 0;
    for (const auto& [section, keys] : next) {
        CheckName(section);
        size += section.size();
        for (const auto& [key, value] : keys) {
            CheckName(key);
            size += key.size() + value.size();
        }
    }
    if (size > MAX_SIZE)
        throw Full();

    const std::string text = ToJson(next);
    const std::string temporary = TemporaryPath(m_path);
    corvid::UniqueFd file = corvid::OpenThrow(temporary, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    corvid::write_all_throw(file.Get(), text.data(), text.size());
    SyncOrThrow(file.Get(), temporary);
    if (::close(file.Release()) != 0)
        throw corvid::ErrnoException(errno, temporary);
    if (::rename(temporary.c_str(), m_path.c_str()) != 0)
        throw corvid::ErrnoException(errno, m_path);
    // The file is what a restart loads now: the contents follow it even if
    // syncing the directory fails.
    m_sections = std::move(next);
    const std::string directory = std::filesystem::path(m_path).parent_path().string();
    const corvid::UniqueFd dir = corvid::OpenThrow(directory.empty() ? "." : directory, O_RDONLY | O_DIRECTORY);
    SyncOrThrow(dir.Get(), directory);
}
