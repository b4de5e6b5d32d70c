// Starting a program and measuring it: wall time from fork to reaping, its
// processor time, and its peak resident memory; or, for paired timing, its
// wall time and page faults alone.
#pragma once

#include <string>
#include <vector>

namespace bench {

struct ChildRun {
    int status = -1;          // the exit status, or 128 + the signal that ended it
    double seconds = 0;       // wall time from fork to reaping
    double cpu_seconds = 0;   // user and system time of the child (wait4)
    long peak_rss_kib = 0;    // the program's own peak resident memory
    long page_faults = 0;     // minor and major (wait4)
    bool peak_at_exit = true; // false: ru_maxrss stands in for it (see RunChild)
};

// Forks, points standard output and standard error at the given files
// (created or truncated) and standard input at /dev/null, and executes
// program (searched in PATH when it has no '/') with arguments after its
// own name, in this process's environment with the NAME=VALUE entries of
// environment added or replaced; waits for it. A child that cannot execute
// the program exits with status 127.
//
// The peak is VmHWM of the program's memory, read when it exits (the child
// is traced and stops once at its exec and once at its exit). wait4's
// ru_maxrss would not do: it keeps the high-water mark of the memory the
// child shared with this process before the exec, so every child of a
// large parent reads as large. Where tracing is refused, ru_maxrss is
// taken all the same and peak_at_exit is false.
ChildRun RunChild(const std::string& program, const std::vector<std::string>& arguments,
                  const std::string& stdout_path, const std::string& stderr_path,
                  const std::vector<std::string>& environment = {});

struct TimedRun {
    int status = -1;       // as ChildRun's
    double seconds = 0;     // wall time from the spawn to reaping
    double cpu_seconds = 0; // user and system time of the child (wait4)
    long page_faults = 0;   // minor and major (wait4)
};

// Starts command[0] (searched in PATH) with the rest as its arguments
// through posix_spawn, with the same standard streams as RunChild, untraced
// and without copying this process's memory first, so that the time is the
// program's own start, run and exit, as a service manager or a shell that
// starts it would see it; waits for it.
TimedRun TimeChild(const std::vector<std::string>& command, const std::string& stdout_path,
                   const std::string& stderr_path);

// A "Key:   N kB" figure of a /proc/PID/status file ("VmRSS", "VmHWM"), or -1.
long StatusKib(const std::string& status_path, const std::string& key);

} // namespace bench
