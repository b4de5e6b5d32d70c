// Running the real programs, directly or in a Sandbox (a private mount
// namespace with fixture files bound over the paths they read, /dev/kmsg
// included); scratch directories; the test programs' own kernel log.
#pragma once

#include <sys/types.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace vxtest {

struct RunResult {
    int exit_status = -1, signal = 0; // the exit status, or -1 and the signal that killed it
    std::string out, err;
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

struct Sandbox;

// The command line that runs one of this build's programs with args. A cross
// build's programs are the player's: the emulator that runs the tests
// (VX_TEST_EMULATOR, a list of words) runs them too, unless VXTEST_NATIVE is
// set, where the tests themselves run on the player (the arm64 simulated
// player's device batch).
inline std::vector<std::string> Built(const std::string& program, const std::vector<std::string>& args = {})
{
    std::vector<std::string> command;
#ifdef VX_TEST_EMULATOR
    if (!std::getenv("VXTEST_NATIVE"))
        command = {VX_TEST_EMULATOR};
#endif
    command.push_back(program);
    command.insert(command.end(), args.begin(), args.end());
    return command;
}

// Starts command[0] with the rest as its arguments (in sandbox when given),
// standard input from the file in, standard output to the file out and
// standard error to err (to out when empty), inheriting no other descriptor;
// it dies with the test program, also when that crashes. Returns its pid.
pid_t Start(const std::vector<std::string>& command, const std::string& in, const std::string& out,
            const std::string& err = {}, const Sandbox* sandbox = nullptr);

// Starts command as Start does, with input on standard input, and waits
// for it; its standard output and error go to files. With VXTEST_VALGRIND set to valgrind's path,
// a program of this build runs under memcheck, and a program that exits with
// a memory error, a definite or indirect leak or a descriptor open beyond the
// standard three fails the calling test.
RunResult Run(const std::vector<std::string>& command, const std::string& input = {},
              const Sandbox* sandbox = nullptr);
inline RunResult Run(const std::string& program, const std::vector<std::string>& args,
                     const std::string& input = {}, const Sandbox* sandbox = nullptr)
{
    std::vector<std::string> command{program};
    command.insert(command.end(), args.begin(), args.end());
    return Run(command, input, sandbox);
}
inline RunResult Vxtool(const std::vector<std::string>& args, const std::string& input = {})
{
    return Run(Built(VX_VXTOOL_PATH, args), input);
}

// A private mount namespace for runs, with a kernel-log file of its own;
// needs what VXTEST_REQUIRE_ISOLATION checks.
struct Sandbox {
    Sandbox() { BindContent("/dev/kmsg", ""); }

    // Binds a new file with this content over target.
    void BindContent(const std::string& target, const std::string& content, unsigned mode = 0644)
    {
        binds.emplace_back(dir.WriteFile("bind" + std::to_string(binds.size()), content, mode), target);
    }
    // What the programs wrote to /dev/kmsg, unless a later bind covers it.
    std::string KernelLog() const { return ReadFile(binds.front().first); }

    TempDir dir;
    std::vector<std::pair<std::string, std::string>> binds; // (source, target)
    // Without the capabilities that let root bypass file permissions.
    bool drop_file_permission_override = false;
};

// Where /dev/kmsg is writable (root), the test programs' main binds a regular
// file over it in a private mount namespace, so that in-process assertion
// reports (death tests) land there: that file, or empty.
const std::string& KernelLogFile();

} // namespace vxtest

// Skips a test that makes assertion reports or runs a Sandbox.
#define VXTEST_REQUIRE_ISOLATION()                                                 \
    do {                                                                           \
        if (::vxtest::KernelLogFile().empty())                                     \
            GTEST_SKIP() << "needs root and mount namespaces";                     \
    } while (0)
