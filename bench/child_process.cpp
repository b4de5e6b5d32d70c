#include "child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>

#include "platform/posix_helpers.h"

extern char** environ;

namespace bench {
namespace {

// A null-terminated array of pointers into texts, as exec takes them.
std::vector<char*> Pointers(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

int Status(int wait_status)
{
    return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
}

double CpuSeconds(const struct rusage& usage)
{
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

} // namespace

ChildRun RunChild(const std::string& program, const std::vector<std::string>& arguments,
                  const std::string& stdout_path, const std::string& stderr_path,
                  const std::vector<std::string>& environment)
{
    // Everything the child needs is made before the fork: between fork and
    // exec it only opens, duplicates and executes.
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv = Pointers(words);
    std::vector<std::string> variables = environment;
    for (char** entry = environ; *entry; ++entry) {
        const std::string variable = *entry;
        const std::string name = variable.substr(0, variable.find('=') + 1);
        bool replaced = false;
        for (const std::string& added : environment)
            replaced = replaced || added.rfind(name, 0) == 0;
        if (!replaced)
            variables.push_back(variable);
    }
    std::vector<char*> envp = Pointers(variables);

    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const pid_t pid = ::fork();
    if (pid < 0)
        throw corvid::ErrnoException(errno, "fork");
    if (pid == 0) {
        const int out = ::open(stdout_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = ::open(stderr_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int in = ::open("/dev/null", O_RDONLY);
        if (out < 0 || err < 0 || in < 0 || ::dup2(out, STDOUT_FILENO) < 0 || ::dup2(err, STDERR_FILENO) < 0 ||
            ::dup2(in, STDIN_FILENO) < 0)
            ::_exit(127);
        // Refused tracing leaves the child untraced: it still runs.
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::execvpe(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }

    ChildRun run;
    run.peak_at_exit = false;
    const std::string status_path = "/proc/" + std::to_string(pid) + "/status";
    bool traced = false;
    int status = 0;
    struct rusage usage {};
    for (;;) {
        if (::wait4(pid, &status, 0, &usage) < 0) {
            if (errno == EINTR)
                continue;
            throw corvid::ErrnoException(errno, "wait4");
        }
        if (!WIFSTOPPED(status))
            break;
        int signal = WSTOPSIG(status);
        if (!traced && signal == SIGTRAP) {
            // The stop after the exec: from here on, stop at the exit too.
            ::ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACEEXIT | PTRACE_O_EXITKILL);
            traced = true;
            signal = 0;
        } else if (status >> 8 == (SIGTRAP | (PTRACE_EVENT_EXIT << 8))) {
            run.peak_rss_kib = StatusKib(status_path, "VmHWM");
            run.peak_at_exit = run.peak_rss_kib >= 0;
            signal = 0;
        }
        ::ptrace(PTRACE_CONT, pid, nullptr, signal);
    }
    run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    run.cpu_seconds = CpuSeconds(usage);
    run.page_faults = usage.ru_minflt + usage.ru_majflt;
    run.status = Status(status);
    if (!run.peak_at_exit)
        run.peak_rss_kib = usage.ru_maxrss;
    return run;
}

TimedRun TimeChild(const std::vector<std::string>& command, const std::string& stdout_path,
                   const std::string& stderr_path)
{
    std::vector<std::string> words = command;
    std::vector<char*> argv = Pointers(words);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, stdout_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                       0644);
    ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, stderr_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                       0644);
    ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);

    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    pid_t pid = 0;
    const int error = ::posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw corvid::ErrnoException(error, "posix_spawn " + command.front());
    int status = 0;
    struct rusage usage {};
    while (::wait4(pid, &status, 0, &usage) < 0) {
        if (errno != EINTR)
            throw corvid::ErrnoException(errno, "wait4");
    }
    TimedRun run;
    run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    run.status = Status(status);
    run.cpu_seconds = CpuSeconds(usage);
    run.page_faults = usage.ru_minflt + usage.ru_majflt;
    return run;
}

long StatusKib(const std::string& status_path, const std::string& key)
{
    std::ifstream status(status_path);
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(key + ":", 0) == 0)
            return std::strtol(line.c_str() + key.size() + 1, nullptr, 10);
    }
    return -1;
}

} // namespace bench
