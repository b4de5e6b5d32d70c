// The registry's contents as the service keeps them: in memory, and in one
// JSON file that every change replaces whole and durably before it counts.
#pragma once

#include <cstddef>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/handles.h"
#include "platform/registry.h"

class RegistryStore final : public Registry {
public:
    // The most bytes of names and values together.
    static constexpr std::size_t MAX_SIZE = 1024 * 1024;
    // Names are 1 to MAX_NAME_LENGTH bytes of ASCII letters, digits, '.', '_' and '-'.
    static constexpr std::size_t MAX_NAME_LENGTH = 128;
    // The largest store file that is read or written. A registry takes fewer
    // than 14 bytes of file per byte of names and values (the most is a
    // one-byte key with an empty value, the 13-byte line `    "k": "",`), so
    // a full one fits; a change whose file would not is Full all the same,
    // so that every file the service writes loads back.
    static constexpr std::size_t MAX_FILE_SIZE = 16 * MAX_SIZE;

    // Read of a key that does not exist.
    class NotFound : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    // Loads the file at path and writes nothing: a missing file or directory
    // is an empty registry. An existing directory that does not belong to
    // the effective user or that group or others may write is refused
    // (std::runtime_error naming it). A file that does not load (not a
    // regular file, larger than MAX_FILE_SIZE, unreadable, not the
    // registry's JSON) is renamed to "<name>.corrupt-<UTC time>", reported
    // once on standard error, and the registry starts empty; when it cannot
    // be renamed (a read-only disk), each change tries again first and fails
    // while it cannot, so the file is never replaced.
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

    // Checks the names and the size of next, writes it to a new temporary
    // file, syncs it, renames it over the store (next becomes the contents)
    // and syncs the directory, creating the directory (mode 0700) first when
    // it is missing. A failure before the rename changes nothing and leaves
    // no temporary file.
    void Commit(Sections next);
    // Renames the store aside; returns the new name.
    std::string SetAside();
    static std::string ToJson(const Sections& sections);

    std::string m_path, m_directory, m_name;
    corvid::UniqueFd m_dir; // the store's directory, once it exists
    bool m_aside_pending = false; // a file that did not load is still at the store's name
    Sections m_sections;
};

// At most max bytes of text, cut before a character and followed by "..."
// when cut; a byte that does not belong to valid UTF-8, and NUL, become '?'.
// Names and texts that a reply or log line repeats go through it: D-Bus
// carries only valid UTF-8, and a name may be as long as a message.
std::string Excerpt(std::string_view text, std::size_t max = RegistryStore::MAX_NAME_LENGTH);
