#include "platform/async_signals.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/assert.h"
#include "platform/debug_helpers.h"
#include "platform/posix_helpers.h"
#include "platform/trace.h"

namespace corvid {
namespace {

std::atomic<std::uint32_t> g_sigint_count{0};
// The dispatcher's self-pipe, for its handler; -1 while there is none.
std::atomic<int> g_signal_pipe{-1};

// The debugger's SIGINT handler: the fixed message with write(2), the only
// output that is safe in a handler, then the count.
void OnSigint(int)
{
    const int saved = errno;
    static const char MESSAGE[] = "SIGINT received\n";
    if (::write(STDERR_FILENO, MESSAGE, sizeof MESSAGE - 1) < 0) {
        // Nothing to report to where reporting failed.
    }
    g_sigint_count.fetch_add(1);
    errno = saved;
}

// The dispatcher's handler: the signal number into the self-pipe.
void OnWatchedSignal(int signal)
{
    const int saved = errno;
    const int fd = g_signal_pipe.load();
    const unsigned char number = static_cast<unsigned char>(signal);
    if (fd >= 0 && ::write(fd, &number, 1) != 1) {
        // A full pipe already holds signals enough to break a wait.
    }
    errno = saved;
}

} // namespace

void ConfigureSignals(int how)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    if (!DebugHelpers::IsDebuggerEnabled())
        sigaddset(&set, SIGINT);
    else if (how == SIG_BLOCK)
        std::signal(SIGINT, &OnSigint);
    else
        std::signal(SIGINT, SIG_DFL);
    sigaddset(&set, SIGHUP);
    sigaddset(&set, SIGCHLD);
    sigaddset(&set, SIGRTMIN + 1);
    sigaddset(&set, SIGRTMIN + 2);
    if (pthread_sigmask(how, &set, nullptr) != 0) {
        PrintGuarded("pthread_sigmask failed: {}\n", std::strerror(errno));
        CORVID_ASSERT(false, "lib/platform/async_signals.cpp", 205,
                      "void corvid::ConfigureSignals(int)", "false");
    }
}

std::uint32_t GetSigintCount()
{
    return g_sigint_count.load();
}

SignalDispatcher::SignalDispatcher()
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0)
        throw ErrnoException(errno, "pipe2");
    m_pipe_read.Reset(fds[0]);
    m_pipe_write.Reset(fds[1]);
    g_signal_pipe.store(fds[1]);
}

SignalDispatcher::~SignalDispatcher()
{
    for (const auto& [signal, action] : m_saved_actions)
        ::sigaction(signal, &action, nullptr);
    g_signal_pipe.store(-1);
}

void SignalDispatcher::Attach(int signal, SignalObserver* observer)
{
    const std::lock_guard<std::mutex> lock(m_mutex); // a failing lock throws std::system_error
    m_observers.emplace_back(signal, observer);
    const bool handled = std::any_of(m_saved_actions.begin(), m_saved_actions.end(),
                                     [&](const auto& saved) { return saved.first == signal; });
    if (!handled) {
        struct sigaction action {};
        action.sa_handler = &OnWatchedSignal;
        sigemptyset(&action.sa_mask);
        struct sigaction earlier {};
        ::sigaction(signal, &action, &earlier);
        m_saved_actions.emplace_back(signal, earlier);
    }
}

void SignalDispatcher::Detach(int signal, SignalObserver* observer)
{
    const std::lock_guard<std::mutex> lock(m_mutex); // a failing lock throws std::system_error
    const auto i = std::find(m_observers.begin(), m_observers.end(), std::make_pair(signal, observer));
    CORVID_ASSERT(i != m_observers.end(), "lib/platform/async_signals.cpp", 48,
                  "void corvid::SignalDispatcher::Detach(int, corvid::SignalObserver*)",
                  "i != m_observers.end()");
    m_observers.erase(i);
    const bool watched = std::any_of(m_observers.begin(), m_observers.end(),
                                     [&](const auto& pair) { return pair.first == signal; });
    if (!watched) {
        const auto saved = std::find_if(m_saved_actions.begin(), m_saved_actions.end(),
                                        [&](const auto& s) { return s.first == signal; });
        if (saved != m_saved_actions.end()) {
            ::sigaction(signal, &saved->second, nullptr);
            m_saved_actions.erase(saved);
        }
    }
}

void SignalDispatcher::Notify(int signal)
{
    // Observers are called without the lock: one may detach in its handler.
    for (const auto& [watched, observer] : GetObservers()) {
        if (watched == signal)
            observer->OnSignal(signal);
    }
}

int SignalDispatcher::DeliverPending()
{
    int delivered = 0;
    unsigned char number = 0;
    while (::read(m_pipe_read.Get(), &number, 1) == 1) {
        Notify(number);
        ++delivered;
    }
    // Watched signals that this thread blocks stay pending: take them too.
    sigset_t blocked, watched;
    sigemptyset(&watched);
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    for (const auto& [signal, observer] : GetObservers()) {
        if (sigismember(&blocked, signal) == 1)
            sigaddset(&watched, signal);
    }
    const timespec no_wait{0, 0};
    for (int signal; (signal = ::sigtimedwait(&watched, nullptr, &no_wait)) > 0; ++delivered)
        Notify(signal);
    return delivered;
}

std::vector<std::pair<int, SignalObserver*>> SignalDispatcher::GetObservers()
{
    const std::lock_guard<std::mutex> lock(m_mutex); // a failing lock throws std::system_error
    return m_observers;
}

} // namespace corvid
