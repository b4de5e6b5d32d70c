// What a program may find where it expects to write a file, and a small disk
// that fills up or turns read-only (root, in the private mount namespace of
// the test programs' main: VXTEST_REQUIRE_ISOLATION).
#pragma once

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/programs.h"

namespace vxtest {

// Each kind's value is its file type, as lstat reports it.
enum class HostileKind : int { Fifo = S_IFIFO, Symlink = S_IFLNK, Directory = S_IFDIR };
inline const std::vector<HostileKind> HOSTILE_KINDS = {HostileKind::Fifo, HostileKind::Symlink,
                                                       HostileKind::Directory};

// Puts a thing of that kind at path; a link points at link_target.
inline void Plant(HostileKind kind, const std::string& path, const std::string& link_target)
{
    const int result = kind == HostileKind::Fifo      ? mkfifo(path.c_str(), 0644)
                       : kind == HostileKind::Symlink ? symlink(link_target.c_str(), path.c_str())
                                                      : mkdir(path.c_str(), 0755);
    if (result != 0)
        throw std::runtime_error("cannot plant a thing at " + path);
}

// A tmpfs of the given size, mounted over a scratch directory of its own.
class SmallDisk {
public:
    explicit SmallDisk(std::size_t bytes)
    {
        const std::string options = "size=" + std::to_string(bytes) + ",mode=0755";
        if (mount("tmpfs", Path().c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0)
            throw std::runtime_error("cannot mount a tmpfs on " + Path());
    }
    ~SmallDisk() { umount2(Path().c_str(), MNT_DETACH); }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    const std::string& Path() const { return m_dir.Path(); }
    // Takes every free block with a file of its own, "filler".
    void Fill()
    {
        const int fd = open((Path() + "/filler").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        const std::string block(4096, 'f');
        while (fd >= 0 && write(fd, block.data(), block.size()) > 0) {
        }
        const bool full = errno == ENOSPC;
        close(fd);
        if (!full)
            throw std::runtime_error("cannot fill " + Path());
    }
    void Free() { unlink((Path() + "/filler").c_str()); }
    void SetReadOnly(bool read_only)
    {
        if (mount(nullptr, Path().c_str(), nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV | (read_only ? MS_RDONLY : 0),
                  nullptr) != 0)
            throw std::runtime_error("cannot remount " + Path());
    }

private:
    TempDir m_dir;
};

} // namespace vxtest
