#include "support/programs.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <gtest/gtest.h>

namespace vxtest {
namespace {

std::string g_kernel_log;

// Moves the calling process into a private mount namespace with each source
// bound over its target.
bool PrivateMounts(const std::vector<std::pair<std::string, std::string>>& binds)
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    for (const auto& [source, target] : binds) {
        if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0)
            return false;
    }
    return true;
}

// Memcheck's verdict on a program that exited (one that a signal ended,
// an assertion's abort, unwinds nothing, so it is not judged): empty when
// the log shows no error, no definite or indirect leak, and no descriptor
// open at exit but the standard three and the log itself.
std::string MemcheckFindings(const std::string& log_path)
{
    const std::string log = ReadFile(log_path);
    std::string findings;
    if (log.find("ERROR SUMMARY: 0 errors") == std::string::npos)
        findings += "errors or leaks; ";
    // "==PID== Open file descriptor N: PATH", one per descriptor open at exit.
    for (std::size_t at = 0; (at = log.find("== Open ", at)) != std::string::npos;) {
        const std::size_t end = log.find('\n', at);
        const std::string line = log.substr(at + 3, end - at - 3);
        at = end;
        if (!line.ends_with(": " + log_path))
            findings += line + "; ";
    }
    if (log.find("FILE DESCRIPTORS: ") == std::string::npos)
        findings += "no descriptor report; ";
    return findings.empty() ? findings : findings + "the log:\n" + log;
}

} // namespace

TempDir::TempDir() : m_path((std::filesystem::temp_directory_path() / "vxtest.XXXXXX").string())
{
    if (!mkdtemp(m_path.data()))
        throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string TempDir::WriteFile(const std::string& name, const std::string& content,
                               unsigned mode) const
{
    const std::string path = m_path + "/" + name;
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    std::filesystem::permissions(path, std::filesystem::perms(mode));
    return path;
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

pid_t Start(const std::vector<std::string>& command, const std::string& in, const std::string& out,
            const std::string& err, const Sandbox* sandbox)
{
    std::vector<char*> argv;
    for (const std::string& word : command)
        argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    // Opened (and truncated) before the program starts, so that a reader never sees the last run's output.
    const int create = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    const int input = open(in.c_str(), O_RDONLY | O_CLOEXEC), output = open(out.c_str(), create, 0644);
    const int error = err.empty() ? dup(output) : open(err.c_str(), create, 0644);
    std::fflush(nullptr);
    const pid_t pid = input < 0 || output < 0 || error < 0 ? -1 : fork();
    if (pid == 0) {
        const bool drop = sandbox && sandbox->drop_file_permission_override;
        if (prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && (!sandbox || PrivateMounts(sandbox->binds)) &&
            (!drop || (prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0) == 0 &&
                       prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0) == 0)) &&
            dup2(input, 0) == 0 && dup2(output, 1) == 1 && dup2(error, 2) == 2 && close_range(3, ~0u, 0) == 0)
            execv(argv[0], argv.data());
        dprintf(2, "vxtest: cannot start %s: %s\n", argv[0], std::strerror(errno));
        _exit(127);
    }
    for (const int fd : {input, output, error})
        close(fd);
    if (pid < 0)
        throw std::runtime_error("cannot start " + command.at(0));
    return pid;
}

RunResult Run(const std::vector<std::string>& command, const std::string& input, const Sandbox* sandbox)
{
    const TempDir dir;
    const std::string out = dir.Path() + "/stdout", err = dir.Path() + "/stderr";
    const std::string& program = command.at(0);
    // VXTEST_VALGRIND names valgrind: every program of this build then runs
    // under memcheck (not the tools that tests use as oracles, gcc, openssl),
    // and a run that memcheck finds fault with fails the test.
    const char* valgrind = std::getenv("VXTEST_VALGRIND");
    const bool memcheck = valgrind && *valgrind && program.rfind(VX_BINARY_DIR "/", 0) == 0;
    const std::string memcheck_log = dir.Path() + "/memcheck";
    std::vector<std::string> words;
    if (memcheck)
        words = {valgrind, "--track-fds=yes", "--leak-check=full",
                 "--errors-for-leak-kinds=definite,indirect", "--log-file=" + memcheck_log};
    words.insert(words.end(), command.begin(), command.end());
    const pid_t pid = Start(words, dir.WriteFile("stdin", input), out, err, sandbox);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            throw std::runtime_error("waitpid failed");
    }
    if (memcheck && WIFEXITED(status)) {
        if (const std::string findings = MemcheckFindings(memcheck_log); !findings.empty())
            ADD_FAILURE() << program << " under memcheck: " << findings;
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, WIFSIGNALED(status) ? WTERMSIG(status) : 0,
            ReadFile(out), ReadFile(err)};
}

const std::string& KernelLogFile()
{
    return g_kernel_log;
}

} // namespace vxtest

// The test programs' main: keeps assertion reports of the code under test out
// of the host's kernel log (see KernelLogFile) before any test runs.
int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    char path[] = "/tmp/vxtest-kmsg.XXXXXX";
    if (access("/dev/kmsg", W_OK) == 0 && close(mkstemp(path)) == 0) {
        if (vxtest::PrivateMounts({{path, "/dev/kmsg"}})) {
            // Sandboxes bind over /dev/kmsg again, which needs the file to keep its name.
            vxtest::g_kernel_log = path;
            // Removed by this process only: a death test's child that exits
            // runs the at-exit handlers too, and the file is still in use.
            static const pid_t creator = getpid();
            std::atexit([] {
                if (getpid() == creator)
                    unlink(vxtest::g_kernel_log.c_str());
            });
        } else {
            unlink(path);
        }
    }
    return RUN_ALL_TESTS();
}
