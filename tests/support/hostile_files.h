// What can stand where a program writes a regular file: a FIFO nobody reads,
// a symbolic link to a file that must stay as it is, a directory, and the
// file system full or read-only. Made at a path of a test's scratch tree,
// for code under test in this process or for a program run in a Sandbox
// (which sees the mounts made here), and undone on destruction.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "support/programs.h"

namespace vxtest {

enum class Hostile { Fifo, Symlink, Directory, FullFilesystem, ReadOnlyFilesystem };
inline constexpr Hostile ALL_HOSTILE[] = {Hostile::Fifo, Hostile::Symlink, Hostile::Directory,
                                          Hostile::FullFilesystem, Hostile::ReadOnlyFilesystem};
const char* Name(Hostile kind);

class HostilePath {
public:
    // Makes kind at path, whose directory must exist. The two file systems
    // are a small tmpfs mounted over that directory (hiding what it held),
    // holding only path with previous as its content; they need
    // VXTEST_REQUIRE_ISOLATION. A writer that blocks on the FIFO is let go
    // after a second, and Faults() tells.
    HostilePath(Hostile kind, std::string path, const std::string& previous = "old\n");
    ~HostilePath();
    HostilePath(const HostilePath&) = delete;
    HostilePath& operator=(const HostilePath&) = delete;

    // What the writer did wrong, empty when nothing: blocked on the FIFO and
    // wrote into it, wrote through the link, changed what a failing write
    // must leave (the old file of a full or read-only file system, the
    // directory), or left a file behind beside path.
    std::string Faults();

private:
    // The other files of the directory, "name " each, in order.
    std::string Listing() const;


    Hostile m_kind;
    std::string m_path, m_directory, m_previous, m_listing;
    TempDir m_outside; // the link's target
    bool m_mounted = false;
    // The FIFO's watchdog.
    std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_stopping = false;
    std::atomic<bool> m_released{false};
    std::string m_written;
    std::thread m_watchdog;
};

} // namespace vxtest
