// vxevdev: serves the simulated player's GPIO event device through CUSE.
// The device's state and protocol are EventDevice's; this file is the
// plumbing: the CUSE session (single-threaded), a timer thread that applies
// scheduled level changes when they fall due, the log file and the
// background mode that returns once the device node exists.
#define FUSE_USE_VERSION 35
#include <cuse_lowlevel.h>
#include <fuse_lowlevel.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "event_device.hpp"

namespace {

struct Server {
    std::mutex mutex;
    std::condition_variable wake;  // the schedule may have changed
    bool stopping = false;
    std::optional<vxsim::EventDevice> device;
    std::uint64_t handles = 0;
    int log_fd = -1;
    int ready_fd = -1;  // the waiting parent's pipe in background mode
    std::string pid_file;
} server;

std::int64_t Now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1'000'000'000LL + ts.tv_nsec;
}

bool WriteAll(int fd, const char* p, std::size_t n) {
    while (n > 0) {
        const ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        p += w;
        n -= static_cast<std::size_t>(w);
    }
    return true;
}

// One write(2) per line: nothing waits in a buffer when the server is killed.
void LogLine(std::string_view line) {
    std::string text(line);
    text += '\n';
    if (!WriteAll(server.log_fd, text.data(), text.size()))
        std::perror("vxevdev: log");
}

void InitDone(void*) {
    {
        std::lock_guard lock(server.mutex);
        server.device->Ready(Now());
    }
    server.wake.notify_all();
    if (!server.pid_file.empty()) {
        const std::string pid = std::to_string(getpid()) + "\n";
        const int fd = open(server.pid_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0 || !WriteAll(fd, pid.data(), pid.size()))
            std::perror(("vxevdev: " + server.pid_file).c_str());
        if (fd >= 0)
            close(fd);
    }
    if (server.ready_fd >= 0) {
        WriteAll(server.ready_fd, "1", 1);
        close(server.ready_fd);
        server.ready_fd = -1;
    }
}

// Each handler reads the clock once it holds the lock (which the timer
// thread holds for microseconds only), so that the log is in time order.
void Open(fuse_req_t req, fuse_file_info* fi) {
    {
        std::lock_guard lock(server.mutex);
        fi->fh = ++server.handles;
        server.device->Open(Now(), fi->fh, fuse_req_ctx(req)->pid);
    }
    server.wake.notify_all();
    fuse_reply_open(req, fi);
}

void Release(fuse_req_t req, fuse_file_info* fi) {
    {
        std::lock_guard lock(server.mutex);
        server.device->Close(Now(), fi->fh);
    }
    fuse_reply_err(req, 0);
}

// The device queues no events: a read never has anything to return.
void Read(fuse_req_t req, size_t, off_t, fuse_file_info*) {
    fuse_reply_err(req, EAGAIN);
}

void Write(fuse_req_t req, const char* buf, size_t size, off_t, fuse_file_info*) {
    long done;
    {
        std::lock_guard lock(server.mutex);
        done = server.device->Write(Now(), buf, size);
    }
    server.wake.notify_all();
    if (done < 0)
        fuse_reply_err(req, static_cast<int>(-done));
    else
        fuse_reply_write(req, static_cast<size_t>(done));
}

void Ioctl(fuse_req_t req, int cmd, void*, fuse_file_info*, unsigned flags, const void* in,
           size_t in_size, size_t out_size) {
    if (flags & FUSE_IOCTL_COMPAT) {
        fuse_reply_err(req, ENOSYS);
        return;
    }
    vxsim::IoctlReply reply;
    {
        std::lock_guard lock(server.mutex);
        reply = server.device->Ioctl(Now(), static_cast<unsigned>(cmd), in, in_size, out_size);
    }
    if (reply.result < 0)
        fuse_reply_err(req, -reply.result);
    else
        fuse_reply_ioctl(req, reply.result, reply.data.data(), reply.data.size());
}

// Applies scheduled level changes at their time, so that the log records
// them even when nobody asks for the levels; requests apply them too.
void Timer() {
    std::unique_lock lock(server.mutex);
    while (!server.stopping) {
        const auto due = server.device->NextDeadline();
        if (!due)
            server.wake.wait(lock);
        else if (Now() < *due)
            server.wake.wait_until(
                lock, std::chrono::steady_clock::time_point(std::chrono::nanoseconds(*due)));
        else
            server.device->Advance(Now());
    }
}

// Forks; the parent waits until the child has its device node (exit 0) or
// has died (exit 1). Returns in the child only.
void Background() {
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0) {
        std::perror("vxevdev: pipe");
        std::exit(1);
    }
    const pid_t pid = fork();
    if (pid < 0) {
        std::perror("vxevdev: fork");
        std::exit(1);
    }
    if (pid > 0) {
        close(pipe_fds[1]);
        char c;
        ssize_t n;
        while ((n = read(pipe_fds[0], &c, 1)) < 0 && errno == EINTR) {
        }
        if (n == 1)
            std::exit(0);
        int status = 0;
        waitpid(pid, &status, 0);
        std::fprintf(stderr, "vxevdev: the server did not start\n");
        std::exit(1);
    }
    close(pipe_fds[0]);
    server.ready_fd = pipe_fds[1];
    setsid();
    const int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
        dup2(null, 0);
        dup2(null, 1);
        if (null > 2)
            close(null);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    for (const std::string& a : args) {
        if (a == "-h" || a == "--help") {
            std::fputs(vxsim::kServerUsage, stdout);
            return 0;
        }
    }
    vxsim::ServerOptions options;
    try {
        options = vxsim::ParseServerOptions(args);
    } catch (const std::invalid_argument& e) {
        std::fprintf(stderr, "vxevdev: %s (see --help)\n", e.what());
        return 2;
    }
    server.log_fd = open(options.log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (server.log_fd < 0) {
        std::perror(("vxevdev: " + options.log_path).c_str());
        return 1;
    }
    server.pid_file = options.pid_file;
    if (options.daemon)
        Background();
    server.device.emplace(options.device, LogLine);

    const std::string devname = "DEVNAME=" + options.devname;
    const char* dev_info[] = {devname.c_str()};
    cuse_info info{};
    info.dev_info_argc = 1;
    info.dev_info_argv = dev_info;
    cuse_lowlevel_ops ops{};
    ops.init_done = InitDone;
    ops.open = Open;
    ops.release = Release;
    ops.read = Read;
    ops.write = Write;
    ops.ioctl = Ioctl;
    std::vector<char*> fuse_args = {argv[0], const_cast<char*>("-f"), const_cast<char*>("-s")};
    if (options.debug)
        fuse_args.push_back(const_cast<char*>("-d"));

    // Signals stop the session loop only when they interrupt its read of
    // /dev/cuse, so the timer thread never takes them.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &old);
    std::thread timer(Timer);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);

    int multithreaded = 0;
    fuse_session* session = cuse_lowlevel_setup(static_cast<int>(fuse_args.size()),
                                                 fuse_args.data(), &info, &ops, &multithreaded,
                                                 nullptr);
    const int status = session && fuse_session_loop(session) == 0 ? 0 : 1;
    {
        std::lock_guard lock(server.mutex);
        server.stopping = true;
        LogLine(std::to_string(Now()) + " exit");
    }
    server.wake.notify_all();
    timer.join();
    // The node goes last: once it has gone, the log is complete.
    if (session) {
        cuse_lowlevel_teardown(session);
        if (!server.pid_file.empty())
            unlink(server.pid_file.c_str());
    }
    return status;
}
