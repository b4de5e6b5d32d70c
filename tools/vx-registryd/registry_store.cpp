#include "registry_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <optional>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "platform/posix_helpers.h"
#include "platform/replace_file.h"
#include "platform/trace.h"

namespace {

// The length of the valid UTF-8 character (not NUL) at text[at], or 0.
std::size_t CharacterLength(std::string_view text, std::size_t at)
{
    const auto byte = [&](std::size_t i) {
        return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0u;
    };
    const unsigned lead = byte(0);
    std::size_t length = 0;
    unsigned low = 0x80, high = 0xBF; // the second byte's range
    if (lead >= 0x01 && lead <= 0x7F)
        return 1;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : 0x80;  // no overlong form
        high = lead == 0xED ? 0x9F : 0xBF; // no surrogate
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF; // at most U+10FFFF
    } else {
        return 0;
    }
    if (byte(1) < low || byte(1) > high)
        return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if (byte(i) < 0x80 || byte(i) > 0xBF)
            return 0;
    }
    return length;
}

void CheckName(const std::string& name)
{
    bool valid = !name.empty() && name.size() <= RegistryStore::MAX_NAME_LENGTH;
    for (const char c : name) {
        valid = valid && ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                          c == '.' || c == '_' || c == '-');
    }
    if (!valid)
        throw Registry::InvalidName(Excerpt(name));
}

// The names and the size of a registry as it is counted: each name is
// checked, and the bytes of names and values may not pass MAX_SIZE.
class Budget {
public:
    void Name(const std::string& name)
    {
        CheckName(name);
        Add(name.size());
    }
    void Value(const std::string& value) { Add(value.size()); }

private:
    void Add(std::size_t bytes)
    {
        m_size += bytes;
        if (m_size > RegistryStore::MAX_SIZE)
            throw Registry::Full();
    }
    std::size_t m_size = 0;
};

// Reads a document into sections as the parser goes, so that a document
// that breaks a rule is refused at that point: memory never holds more than
// the input and a registry within its limits. A name that appears twice at
// one level is refused too (the file never has one).
class SectionsReader final : public nlohmann::json_sax<nlohmann::json> {
public:
    using Sections = std::map<std::string, std::map<std::string, std::string>>;

    Sections& Result() { return m_sections; }

    bool null() override { return Misplaced(); }
    bool boolean(bool) override { return Misplaced(); }
    bool number_integer(number_integer_t) override { return Misplaced(); }
    bool number_unsigned(number_unsigned_t) override { return Misplaced(); }
    bool number_float(number_float_t, const string_t&) override { return Misplaced(); }
    bool binary(binary_t&) override { return Misplaced(); }
    bool start_array(std::size_t) override { return Misplaced(); }
    bool end_array() override { return Misplaced(); }
    bool string(string_t& value) override
    {
        if (m_depth != 2)
            return Misplaced();
        m_budget.Value(value);
        (*m_keys)[m_key] = std::move(value);
        return true;
    }
    bool start_object(std::size_t) override
    {
        if (m_depth == 2)
            return Misplaced();
        ++m_depth;
        return true;
    }
    bool key(string_t& name) override
    {
        m_budget.Name(name);
        if (m_depth == 1) {
            const auto [entry, added] = m_sections.try_emplace(name);
            if (!added)
                throw Registry::InvalidJson("section '" + Excerpt(name) + "' appears twice");
            m_section = name;
            m_keys = &entry->second;
        } else {
            if (m_keys->contains(name))
                throw Registry::InvalidJson("key '" + Excerpt(m_section) + "." + Excerpt(name) + "' appears twice");
            m_key = std::move(name);
        }
        return true;
    }
    bool end_object() override
    {
        --m_depth;
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& e) override
    {
        throw Registry::InvalidJson(Excerpt(e.what(), 240)); // it repeats the token it stopped at
    }

private:
    bool Misplaced()
    {
        if (m_depth == 0)
            throw Registry::InvalidJson("the document is not an object of sections");
        if (m_depth == 1)
            throw Registry::InvalidJson("section '" + Excerpt(m_section) + "' is not an object of keys");
        throw Registry::InvalidJson("the value of '" + Excerpt(m_section) + "." + Excerpt(m_key) + "' is not a string");
    }

    Sections m_sections;
    Budget m_budget;
    int m_depth = 0;
    std::string m_section, m_key;
    std::map<std::string, std::string>* m_keys = nullptr;
};

SectionsReader::Sections Parse(const std::string& json)
{
    SectionsReader reader;
    if (!nlohmann::json::sax_parse(json, &reader))
        throw Registry::InvalidJson("not JSON");
    return std::move(reader.Result());
}

// Opens the store's directory; a missing one is created (mode 0700 whatever
// the umask) when create is set, else it is no directory (closed). The
// directory must belong to the effective user and be writable by no one
// else: whoever may write there could put a link where the store goes.
corvid::UniqueFd OpenDirectory(const std::string& directory, bool create)
{
    corvid::UniqueFd dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.IsOpen() && errno == ENOENT && create) {
        const bool made = ::mkdir(directory.c_str(), 0700) == 0;
        if (!made && errno != EEXIST)
            throw corvid::ErrnoException(errno, directory);
        dir.Reset(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (made && dir.IsOpen() && ::fchmod(dir.Get(), 0700) != 0)
            throw corvid::ErrnoException(errno, directory);
    }
    if (!dir.IsOpen()) {
        if (errno == ENOENT && !create)
            return dir;
        throw corvid::ErrnoException(errno, directory);
    }
    struct stat st = {};
    if (::fstat(dir.Get(), &st) != 0)
        throw corvid::ErrnoException(errno, directory);
    if (st.st_uid != ::geteuid())
        throw std::runtime_error(fmt::format(
            "{}: the store's directory belongs to uid {}, not to this service's uid {}", directory, st.st_uid,
            ::geteuid()));
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        throw std::runtime_error(
            fmt::format("{}: the store's directory may be written by group or others (mode {:04o})", directory,
                        st.st_mode & 07777));
    return dir;
}

// The store file's text: none when there is no file. Anything that is not
// a regular file within MAX_FILE_SIZE is refused before it is read; a FIFO
// is never waited on and a link never followed.
std::optional<std::string> ReadStore(int dir, const std::string& name)
{
    corvid::UniqueFd file(::openat(dir, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st = {};
    if (!file.IsOpen() && errno == ENOENT)
        return std::nullopt;
    if (!file.IsOpen() && errno == ELOOP)
        throw std::runtime_error("a symbolic link, not a regular file");
    if (!file.IsOpen() || ::fstat(file.Get(), &st) != 0)
        throw corvid::ErrnoException(errno);
    if (!S_ISREG(st.st_mode))
        throw std::runtime_error("not a regular file");
    const auto too_large = [](std::size_t size) {
        return std::runtime_error(fmt::format("{} bytes or more, larger than a registry's file ({} bytes)", size,
                                              RegistryStore::MAX_FILE_SIZE));
    };
    if (static_cast<std::uintmax_t>(st.st_size) > RegistryStore::MAX_FILE_SIZE)
        throw too_large(st.st_size);
    std::string text(st.st_size + 1, '\0'); // one more, to see a file that grew
    text.resize(corvid::read_all_throw(file.Get(), text.data(), text.size()));
    if (text.size() > RegistryStore::MAX_FILE_SIZE)
        throw too_large(text.size());
    return text;
}

} // namespace

std::string Excerpt(std::string_view text, std::size_t max)
{
    std::string excerpt;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = CharacterLength(text, at);
        if (excerpt.size() + std::max<std::size_t>(length, 1) > max)
            return excerpt + "...";
        if (length == 0)
            excerpt += '?';
        else
            excerpt.append(text.substr(at, length));
        at += std::max<std::size_t>(length, 1);
    }
    return excerpt;
}

RegistryStore::RegistryStore(std::string path) : m_path(std::move(path))
{
    const std::filesystem::path store(m_path);
    m_name = store.filename().string();
    m_directory = store.has_parent_path() ? store.parent_path().string() : ".";
    if (m_name.empty() || m_name == "." || m_name == "..")
        throw std::runtime_error(m_path + ": names no file");
    m_dir = OpenDirectory(m_directory, false);
    if (!m_dir.IsOpen())
        return;
    std::string problem;
    try {
        if (const std::optional<std::string> text = ReadStore(m_dir.Get(), m_name))
            m_sections = Parse(*text);
        return;
    } catch (const std::exception& e) {
        problem = e.what();
    }
    m_aside_pending = true;
    try {
        corvid::PrintGuarded("vx-registryd: {}: {}; set aside as {}, starting with an empty registry\n", m_path,
                             problem, SetAside());
    } catch (const std::exception& e) {
        corvid::PrintGuarded("vx-registryd: {}: {}; it cannot be set aside ({}), so the registry starts empty and "
                             "every change fails until it can\n",
                             m_path, problem, e.what());
    }
}

std::string RegistryStore::SetAside()
{
    char stamp[32] = {};
    const std::time_t now = std::time(nullptr);
    std::tm utc = {};
    std::strftime(stamp, sizeof(stamp), "%Y%m%dT%H%M%SZ", gmtime_r(&now, &utc));
    // A player without a clock may boot twice at the same time.
    for (int i = 0;; ++i) {
        std::string aside = m_name + ".corrupt-" + stamp;
        if (i > 0)
            aside += fmt::format("-{}", i);
        if (::renameat2(m_dir.Get(), m_name.c_str(), m_dir.Get(), aside.c_str(), RENAME_NOREPLACE) == 0) {
            m_aside_pending = false;
            // Unsynced, a power cut may bring the name back: the file is then set aside again.
            ::fsync(m_dir.Get());
            return aside;
        }
        if (errno != EEXIST || i == 99)
            throw corvid::ErrnoException(errno, m_path);
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
    Commit(Parse(json));
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
    Budget budget;
    for (const auto& [section, keys] : next) {
        budget.Name(section);
        for (const auto& [key, value] : keys) {
            budget.Name(key);
            budget.Value(value);
        }
    }
    const std::string text = ToJson(next);
    if (text.size() > MAX_FILE_SIZE)
        throw Full();

    if (!m_dir.IsOpen())
        m_dir = OpenDirectory(m_directory, true);
    if (m_aside_pending)
        corvid::PrintGuarded("vx-registryd: {} set aside as {}\n", m_path, SetAside());
    // The store is what a restart loads once renamed: the contents follow it
    // even if syncing the directory fails.
    corvid::ReplaceFileAt(m_dir.Get(), m_path, text, 0600, corvid::TemporaryFileFailures::NameTheTemporaryFile,
                          [&] { m_sections = std::move(next); });
}
