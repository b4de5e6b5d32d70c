// The registry's contents as the service keeps them: in memory, and in one
// JSON file that every change replaces whole and durably before it counts.
#pragma once

#include <cstddef>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/registry.h"

class RegistryStore final : public Registry {
public:
    // The most bytes of names and values together.
    static constexpr std::size_t MAX_SIZE = 1024 * 1024;
    // Names are 1 to MAX_NAME_LENGTH bytes of ASCII letters, digits, '.', '_' and '-'.
    static constexpr std::size_t MAX_NAME_LENGTH = 128;

    // Read of a key that does not exist.
    class NotFound : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    // Loads the file at path (none: an empty registry) under the same rules
    // as WriteJson, after removing a temporary file that a crash left behind
    // and creating the directory when it is missing. Failures name the path.
    explicit RegistryStore(std::string path);

    std::string ReadAllJson() override;
    // Replaces the whole registry with the document.
    void WriteJson(const std::string& json) override;
    std::string Read(const std::string& section, const std::string& key) override;
    void Write(const std::string& section, const std::string& key, const std::string& value) override;
    bool KeyExists(const std::string& section, const std::string& key) override;
    bool SectionExists(const std::string& section) override;
    // A section stays, empty, when its last key goes.
    void DeleteKey(const std::string& section, const std::string& key) override;
    void DeleteSection(const std::string& section) override;
    void DeleteAll() override;
    std::vector<std::string> SectionList() override;
    std::map<std::string, std::string> KeyList(const std::string& section) override;
    // Every change is already on disk.
    void Flush() override {}

private:
    using Sections = std::map<std::string, std::map<std::string, std::string>>;

    // Checks the names and the size of next, writes it to a temporary file,
    // syncs it, renames it over the store (next becomes the contents) and
    // syncs the directory. A failure before the rename changes nothing.
    void Commit(Sections next);
    static std::string ToJson(const Sections& sections);

    std::string m_path;
    Sections m_sections;
};
