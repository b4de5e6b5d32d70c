// Runs a program in a private mount namespace, with fixture files bound
// over the paths it reads (/proc/meminfo, ...) and a regular file over
// /dev/kmsg, so that whole-program tests never touch the host's real files
// or kernel log. Needs root; tests skip themselves elsewhere.
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

class Sandbox {
public:
    Sandbox();

    // True where sandboxes can be made (root with mount namespaces).
    static bool Available();

    // Binds a file over target inside the sandbox.
    void Bind(const std::string& source, const std::string& target);
    // Binds a new file with this content over target; returns the file's path.
    std::string BindContent(const std::string& target, const std::string& content,
                            unsigned mode = 0644);
    // Runs the program without the capabilities that let root bypass file
    // permissions, so that a file of mode 000 is unreadable to it.
    void DropFilePermissionOverride() { m_drop_dac_override = true; }

    // Runs program with args (argv[0] is the program) and waits for it.
    RunResult Run(const std::string& program, const std::vector<std::string>& args = {});

    // What the program wrote to /dev/kmsg.
    std::string KernelLog() const;

    const TempDir& Dir() const { return m_dir; }

private:
    TempDir m_dir;
    std::string m_kmsg;
    std::vector<std::pair<std::string, std::string>> m_binds;
    bool m_drop_dac_override = false;
};

// Runs a program directly (no sandbox), feeding input on standard input.
RunResult RunProgram(const std::string& program, const std::vector<std::string>& args,
                     const std::string& input = std::string());

} // namespace vxtest

// Skips the current test where no sandbox can be made.
#define VXTEST_REQUIRE_SANDBOX()                                                   \
    do {                                                                           \
        if (!::vxtest::Sandbox::Available())                                       \
            GTEST_SKIP() << "needs root and mount namespaces";                     \
    } while (0)
