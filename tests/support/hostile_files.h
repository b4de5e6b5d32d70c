// What can stand where a program writes a regular file, made at a path of a
// test's scratch tree for code under test in this process, a program run in
// a Sandbox or a service this process starts (which see the mounts made
// here), undone on destruction.
#pragma once

#include <string>

#include "platform/handles.h"
#include "support/programs.h"

namespace vxtest {

enum class Hostile { Fifo, Symlink, Directory, FullFilesystem, ReadOnlyFilesystem };
const char* Name(Hostile kind);

class HostilePath {
public:
    // Makes kind at path, whose directory must exist. The FIFO's read end
    // is held here, so that a writer that opens it writes into it instead
    // of waiting for ever. The two file systems are a small tmpfs mounted
    // over the directory (hiding what it held) with only previous at path;
    // they need VXTEST_REQUIRE_ISOLATION.
    HostilePath(Hostile kind, std::string path, const std::string& previous = "old\n");
    ~HostilePath();

    // What the writer did wrong, empty when nothing: wrote into the FIFO,
    // wrote through the link, changed the old file of a file system, or left
    // a file behind beside path.
    std::string Faults() const;

    // Gives the file system room again and makes it writable.
    void Heal();

private:
    std::string Listing() const; // the directory's other names, "name " each

    Hostile m_kind;
    std::string m_path, m_directory, m_previous, m_listing;
    TempDir m_outside; // the link's target
    corvid::UniqueFd m_fifo; // the FIFO's read end
    bool m_mounted = false;
};

} // namespace vxtest
