#include "support/programs.h"

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
    dprintf(2, "vxtest: %s: %s\n", what, std::strerror(errno));
    _exit(127);
}

// In the child: makes path (opened close-on-exec) the descriptor target.
void Redirect(const std::string& path, int flags, int target)
{
    const int fd = open(path.c_str(), flags | O_CLOEXEC, 0644);
    if (fd < 0 || dup2(fd, target) < 0)
        ChildFail(path.c_str());
    close(fd);
}

// In the child: the private mount namespace of an isolated launch.
void Isolate(const Launch& launch)
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        ChildFail("private mount namespace");
    if (!launch.kmsg.empty() && access("/dev/kmsg", F_OK) == 0 &&
        mount(launch.kmsg.c_str(), "/dev/kmsg", nullptr, MS_BIND, nullptr) != 0)
        ChildFail("bind /dev/kmsg");
    for (const auto& [source, target] : launch.binds) {
        if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0)
            ChildFail(target.c_str());
    }
    if (!launch.proc.empty() && mount("proc", "/proc", "tmpfs", 0, "mode=0555") != 0)
        ChildFail("/proc");
    for (const auto& file : launch.proc) {
        const std::string path = "/proc/" + file.name;
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, file.mode);
        if (fd < 0 || write(fd, file.content.data(), file.content.size()) < 0)
            ChildFail(path.c_str());
        close(fd);
    }
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

RunResult Run(const std::string& program, const Launch& launch)
{
    TempDir dir;
    const std::string in = dir.WriteFile("stdin", launch.input);
    const std::string out = dir.Path() + "/stdout", err = dir.Path() + "/stderr";
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& arg : launch.args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        if (launch.isolate)
            Isolate(launch);
        if (launch.drop_file_permission_override &&
            (prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0) != 0 ||
             prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0) != 0))
            ChildFail("drop capabilities");
        Redirect(in, O_RDONLY, 0);
        Redirect(out, O_WRONLY | O_CREAT | O_TRUNC, 1);
        Redirect(err, O_WRONLY | O_CREAT | O_TRUNC, 2);
        execv(program.c_str(), argv.data());
        ChildFail("exec");
    }
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
    result.out = ReadFile(out);
    result.err = ReadFile(err);
    return result;
}

RunResult Run(const std::string& program, const std::vector<std::string>& args,
              const std::string& input)
{
    Launch launch;
    launch.args = args;
    launch.input = input;
    return Run(program, launch);
}

RunResult Vxtool(const std::vector<std::string>& args, const std::string& input)
{
    return Run(VX_VXTOOL_PATH, args, input);
}

Sandbox::Sandbox()
{
    m_launch.isolate = true;
    m_launch.kmsg = m_dir.WriteFile("kmsg", "");
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

std::string Sandbox::BindContent(const std::string& target, const std::string& content,
                                 unsigned mode)
{
    const std::string path =
        m_dir.WriteFile("bind" + std::to_string(m_launch.binds.size()), content, mode);
    m_launch.binds.emplace_back(path, target);
    return path;
}

RunResult Sandbox::Run(const std::string& program, const std::vector<std::string>& args)
{
    Launch launch = m_launch;
    launch.args = args;
    return vxtest::Run(program, launch);
}

} // namespace vxtest
