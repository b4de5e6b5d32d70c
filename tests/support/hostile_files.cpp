#include "support/hostile_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace vxtest {
namespace {

constexpr const char* VICTIM = "the link's target\n";

void Require(bool ok, const std::string& what)
{
    if (!ok)
        throw std::runtime_error("HostilePath: " + what + ": " + std::strerror(errno));
}

void Mount(const std::string& directory, const std::string& options)
{
    Require(mount("vxtest", directory.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0,
            "mount " + directory);
}

} // namespace

const char* Name(Hostile kind)
{
    switch (kind) {
    case Hostile::Fifo:
        return "a FIFO";
    case Hostile::Symlink:
        return "a symbolic link";
    case Hostile::Directory:
        return "a directory";
    case Hostile::FullFilesystem:
        return "a full file system";
    case Hostile::ReadOnlyFilesystem:
        return "a read-only file system";
    }
    return "?";
}

HostilePath::HostilePath(Hostile kind, std::string path, const std::string& previous)
    : m_kind(kind), m_path(std::move(path)), m_directory(std::filesystem::path(m_path).parent_path()),
      m_previous(previous)
{
    switch (kind) {
    case Hostile::Fifo:
        Require(mkfifo(m_path.c_str(), 0644) == 0, "mkfifo " + m_path);
        m_watchdog = std::thread([this] {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (m_done.wait_for(lock, std::chrono::seconds(1), [this] { return m_stopping; }))
                return;
            // Still there after a second: a reader lets a blocked writer go.
            struct stat st;
            if (lstat(m_path.c_str(), &st) != 0 || !S_ISFIFO(st.st_mode))
                return;
            const int fd = open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
            m_done.wait(lock, [this] { return m_stopping; });
            char buffer[4096];
            for (ssize_t n; fd >= 0 && (n = read(fd, buffer, sizeof buffer)) > 0;)
                m_written.append(buffer, std::size_t(n));
            m_released = !m_written.empty();
            if (fd >= 0)
                close(fd);
        });
        break;
    case Hostile::Symlink:
        Require(symlink(m_outside.WriteFile("victim", VICTIM).c_str(), m_path.c_str()) == 0, "symlink " + m_path);
        break;
    case Hostile::Directory:
        Require(mkdir(m_path.c_str(), 0755) == 0, "mkdir " + m_path);
        break;
    case Hostile::FullFilesystem:
    case Hostile::ReadOnlyFilesystem: {
        Mount(m_directory, "size=64k,mode=755");
        m_mounted = true;
        std::ofstream(m_path, std::ios::binary) << m_previous;
        if (kind == Hostile::ReadOnlyFilesystem) {
            Require(mount(nullptr, m_directory.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0,
                    "remount " + m_directory);
            break;
        }
        // Filled to the last page: a file can still be made, not written.
        const int fd = open((m_directory + "/fill").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        Require(fd >= 0, "fill");
        const std::string page(4096, 'f');
        while (write(fd, page.data(), page.size()) > 0) {
        }
        close(fd);
        break;
    }
    }
    m_listing = Listing();
}

HostilePath::~HostilePath()
{
    if (m_watchdog.joinable()) {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_stopping = true;
        }
        m_done.notify_all();
        m_watchdog.join();
    }
    if (m_mounted)
        umount2(m_directory.c_str(), MNT_DETACH);
}

std::string HostilePath::Listing() const
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_directory)) {
        if (entry.path().filename() != std::filesystem::path(m_path).filename())
            names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    std::string listing;
    for (const std::string& name : names)
        listing += name + " ";
    return listing;
}

std::string HostilePath::Faults()
{
    std::string faults;
    if (m_watchdog.joinable()) {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_stopping = true;
        }
        m_done.notify_all();
        m_watchdog.join();
        if (m_released)
            faults += "a writer blocked on the FIFO, then wrote '" + m_written + "' into it; ";
    }
    if (m_kind == Hostile::Symlink && ReadFile(m_outside.Path() + "/victim") != VICTIM)
        faults += "wrote through the link: '" + ReadFile(m_outside.Path() + "/victim") + "'; ";
    if ((m_kind == Hostile::FullFilesystem || m_kind == Hostile::ReadOnlyFilesystem) &&
        ReadFile(m_path) != m_previous)
        faults += "the old file is now '" + ReadFile(m_path) + "'; ";
    if (m_kind == Hostile::Directory && !std::filesystem::is_directory(m_path))
        faults += "the directory is gone; ";
    if (const std::string now = Listing(); now != m_listing)
        faults += "beside it were '" + m_listing + "', now '" + now + "'; ";
    return faults;
}

} // namespace vxtest
