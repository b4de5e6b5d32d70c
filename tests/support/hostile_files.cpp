#include "support/hostile_files.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>

namespace vxtest {
namespace {

constexpr const char* VICTIM = "the link's target\n";

void Require(bool ok, const std::string& what)
{
    if (!ok)
        throw std::runtime_error("HostilePath: " + what + ": " + std::strerror(errno));
}

} // namespace

const char* Name(Hostile kind)
{
    static const char* const NAMES[] = {"a FIFO", "a symbolic link", "a directory", "a full file system",
                                        "a read-only file system"};
    return NAMES[static_cast<int>(kind)];
}

HostilePath::HostilePath(Hostile kind, std::string path, const std::string& previous)
    : m_kind(kind), m_path(std::move(path)), m_directory(std::filesystem::path(m_path).parent_path()),
      m_previous(previous)
{
    if (kind == Hostile::Fifo) {
        Require(mkfifo(m_path.c_str(), 0644) == 0, "mkfifo " + m_path);
        m_fifo.Reset(open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        Require(m_fifo.IsOpen(), "open " + m_path);
    } else if (kind == Hostile::Symlink) {
        Require(symlink(m_outside.WriteFile("victim", VICTIM).c_str(), m_path.c_str()) == 0, "symlink " + m_path);
    } else if (kind == Hostile::Directory) {
        Require(mkdir(m_path.c_str(), 0755) == 0, "mkdir " + m_path);
    } else {
        Require(mount("vxtest", m_directory.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=64k,mode=755") == 0,
                "mount " + m_directory);
        m_mounted = true;
        std::ofstream(m_path, std::ios::binary) << m_previous;
        if (kind == Hostile::ReadOnlyFilesystem)
            Require(mount(nullptr, m_directory.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0,
                    "remount " + m_directory);
        else // filled to the last page: a file can still be made, not written
            std::ofstream(m_directory + "/fill", std::ios::binary) << std::string(64 * 1024, 'f');
    }
    m_listing = Listing();
}

HostilePath::~HostilePath()
{
    if (m_mounted)
        umount2(m_directory.c_str(), MNT_DETACH);
}

void HostilePath::Heal()
{
    if (m_kind == Hostile::ReadOnlyFilesystem)
        Require(mount(nullptr, m_directory.c_str(), nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV, nullptr) == 0,
                "remount " + m_directory);
    else if (m_kind == Hostile::FullFilesystem)
        Require(unlink((m_directory + "/fill").c_str()) == 0, "unlink " + m_directory + "/fill");
}

std::string HostilePath::Listing() const
{
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_directory))
        names.insert(entry.path().filename());
    names.erase(std::filesystem::path(m_path).filename());
    std::string listing;
    for (const std::string& name : names)
        listing += name + " ";
    return listing;
}

std::string HostilePath::Faults() const
{
    std::string faults;
    char written[256];
    if (const ssize_t n = m_fifo.IsOpen() ? read(m_fifo.Get(), written, sizeof written) : 0; n > 0)
        faults += "wrote '" + std::string(written, std::size_t(n)) + "' into the FIFO; ";
    if (m_kind == Hostile::Symlink && ReadFile(m_outside.Path() + "/victim") != VICTIM)
        faults += "wrote through the link: '" + ReadFile(m_outside.Path() + "/victim") + "'; ";
    if (m_mounted && ReadFile(m_path) != m_previous)
        faults += "the old file is now '" + ReadFile(m_path) + "'; ";
    if (const std::string now = Listing(); now != m_listing)
        faults += "beside it were '" + m_listing + "', now '" + now + "'; ";
    return faults;
}

} // namespace vxtest
