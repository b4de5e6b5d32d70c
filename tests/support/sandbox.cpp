#include "support/sandbox.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vxtest {
namespace {

[[noreturn]] void ChildFail(const char* what)
{
    const int error = errno;
    dprintf(2, "sandbox: %s: %s\n", what, std::strerror(error));
    _exit(127);
}

std::vector<char*> MakeArgv(const std::string& program, const std::vector<std::string>& args)
{
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const auto& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    return argv;
}

RunResult Collect(pid_t pid, const std::string& out_path, const std::string& err_path)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            throw std::runtime_error("waitpid failed");
    }
    RunResult result;
    if (WIFEXITED(status))
        result.exit_status = WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        result.signal = WTERMSIG(status);
    result.out = ReadFile(out_path);
    result.err = ReadFile(err_path);
    return result;
}

void RedirectOutputs(const std::string& out_path, const std::string& err_path)
{
    const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0)
        ChildFail("redirect");
}

} // namespace

TempDir::TempDir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "vxtest.XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
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
    if (chmod(path.c_str(), mode) != 0)
        throw std::runtime_error("chmod failed");
    return path;
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

Sandbox::Sandbox()
{
    m_kmsg = m_dir.WriteFile("kmsg", "");
}

bool Sandbox::Available()
{
    static const bool available = [] {
        if (geteuid() != 0)
            return false;
        const pid_t pid = fork();
        if (pid == 0)
            _exit(unshare(CLONE_NEWNS) == 0 ? 0 : 1);
        int status = 0;
        return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
               WEXITSTATUS(status) == 0;
    }();
    return available;
}

void Sandbox::Bind(const std::string& source, const std::string& target)
{
    m_binds.emplace_back(source, target);
}

std::string Sandbox::BindContent(const std::string& target, const std::string& content,
                                 unsigned mode)
{
    const std::string name = "bind" + std::to_string(m_binds.size());
    const std::string path = m_dir.WriteFile(name, content, mode);
    Bind(path, target);
    return path;
}

RunResult Sandbox::Run(const std::string& program, const std::vector<std::string>& args)
{
    const std::string out_path = m_dir.Path() + "/stdout";
    const std::string err_path = m_dir.Path() + "/stderr";
    std::vector<char*> argv = MakeArgv(program, args);
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        if (unshare(CLONE_NEWNS) != 0)
            ChildFail("unshare");
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            ChildFail("make / private");
        if (access("/dev/kmsg", F_OK) == 0 &&
            mount(m_kmsg.c_str(), "/dev/kmsg", nullptr, MS_BIND, nullptr) != 0)
            ChildFail("bind /dev/kmsg");
        for (const auto& [source, target] : m_binds) {
            if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0)
                ChildFail(target.c_str());
        }
        if (m_drop_dac_override && (prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0) != 0 ||
                                    prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0) != 0))
            ChildFail("drop capabilities");
        RedirectOutputs(out_path, err_path);
        execv(program.c_str(), argv.data());
        ChildFail("exec");
    }
    return Collect(pid, out_path, err_path);
}

std::string Sandbox::KernelLog() const
{
    return ReadFile(m_kmsg);
}

RunResult RunProgram(const std::string& program, const std::vector<std::string>& args,
                     const std::string& input)
{
    TempDir dir;
    const std::string in_path = dir.WriteFile("stdin", input);
    const std::string out_path = dir.Path() + "/stdout";
    const std::string err_path = dir.Path() + "/stderr";
    std::vector<char*> argv = MakeArgv(program, args);
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        const int in = open(in_path.c_str(), O_RDONLY);
        if (in < 0 || dup2(in, 0) < 0)
            ChildFail("stdin");
        RedirectOutputs(out_path, err_path);
        execv(program.c_str(), argv.data());
        ChildFail("exec");
    }
    return Collect(pid, out_path, err_path);
}

} // namespace vxtest
