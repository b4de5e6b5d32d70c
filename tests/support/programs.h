// Running the real programs: directly, or in a private mount namespace with
// fixture files bound over the paths they read and a regular file over
// /dev/kmsg, so that whole-program tests never touch the host's real files
// or kernel log. Scratch directories and file helpers.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace vxtest {

struct RunResult {
    int exit_status = -1; // the exit status, or -1 when killed by a signal
    int signal = 0;       // the signal that killed the program, or 0
    std::string out;      // what it wrote to standard output
    std::string err;      // what it wrote to standard error
};

// A scratch directory removed with its contents on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    // Writes a file below the directory and returns its path.
    std::string WriteFile(const std::string& name, const std::string& content,
                          unsigned mode = 0644) const;

private:
    std::string m_path;
};

std::string ReadFile(const std::string& path);

// How a program is started.
struct Launch {
    std::vector<std::string> args; // after argv[0]
    std::string input;             // standard input
    // In a private mount namespace: /dev/kmsg replaced by kmsg (when set) and
    // each (source, target) bound over its target.
    bool isolate = false;
    std::string kmsg;
    std::vector<std::pair<std::string, std::string>> binds;
    // When not empty: /proc is a tmpfs holding only these (name, content, mode).
    struct ProcFile {
        std::string name, content;
        unsigned mode;
    };
    std::vector<ProcFile> proc;
    // Without the capabilities that let root bypass file permissions.
    bool drop_file_permission_override = false;
};

// Starts program with argv[0] = program and waits for it. Its standard
// output and error go to files that it does not inherit otherwise.
RunResult Run(const std::string& program, const Launch& launch);
// The same without namespace or capability changes.
RunResult Run(const std::string& program, const std::vector<std::string>& args,
              const std::string& input = {});

// Runs vxtool with args and input.
RunResult Vxtool(const std::vector<std::string>& args, const std::string& input = {});

// A private mount namespace for one run, with its own kernel-log file.
class Sandbox {
public:
    Sandbox();

    // True where sandboxes can be made (root with mount namespaces).
    static bool Available();

    // Binds a new file with this content over target; returns the file's path.
    std::string BindContent(const std::string& target, const std::string& content,
                            unsigned mode = 0644);
    // Makes /proc a tmpfs that holds only the files given this way.
    void ProcFile(const std::string& name, const std::string& content, unsigned mode = 0644)
    {
        m_launch.proc.push_back({name, content, mode});
    }
    void DropFilePermissionOverride() { m_launch.drop_file_permission_override = true; }

    RunResult Run(const std::string& program, const std::vector<std::string>& args = {});
    // What the program wrote to /dev/kmsg.
    std::string KernelLog() const { return ReadFile(m_launch.kmsg); }

private:
    TempDir m_dir;
    Launch m_launch;
};

} // namespace vxtest

// Skips the current test where no sandbox can be made.
#define VXTEST_REQUIRE_SANDBOX()                                                   \
    do {                                                                           \
        if (!::vxtest::Sandbox::Available())                                       \
            GTEST_SKIP() << "needs root and mount namespaces";                     \
    } while (0)
