// The process signal policy and the signal observers.
#pragma once

#include <csignal>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/handles.h"
#include "platform/singleton.h"

namespace corvid {

// Applies the library's signal mask to the calling thread with
// pthread_sigmask(how, ...): SIGTERM, SIGHUP, SIGCHLD, SIGRTMIN+1 and
// SIGRTMIN+2, and SIGINT unless the debugger is enabled ("vx.debug"); with
// the debugger enabled, SIGINT is handled in place ("SIGINT received\n" and
// a count) when how is SIG_BLOCK, or given back its default action
// otherwise. A failing pthread_sigmask prints "pthread_sigmask failed:
// <strerror>\n" and is a fatal assertion.
void ConfigureSignals(int how);

// The number of SIGINTs the debugger's handler has taken.
std::uint32_t GetSigintCount();

// Told about a watched signal.
class SignalObserver {
public:
    virtual ~SignalObserver() = default;
    virtual void OnSignal(int signal) = 0;
};

// The observers of signals, one process-wide instance (constructed by the
// program that wants it). Delivery runs nothing in a signal handler but a
// write(2) of the signal number to a self-pipe: DeliverPending, called by
// the code that waits (the LED display between its flashes), notifies the
// observers of every signal taken since, and also takes watched signals that
// are blocked in the calling thread and pending (sigtimedwait, no wait).
class SignalDispatcher : public Singleton<SignalDispatcher> {
public:
    SignalDispatcher();
    ~SignalDispatcher();

    // Appends (signal, observer); installs the dispatcher's handler for the
    // signal while any observer watches it. The same pair may appear twice.
    void Attach(int signal, SignalObserver* observer);
    // Removes the first equal pair, keeping the order of the others;
    // detaching a pair that is not attached is a fatal assertion. The
    // signal's earlier action comes back when its last observer goes.
    void Detach(int signal, SignalObserver* observer);
    // Notifies the observers of the signals taken since the last call, in
    // order; returns how many signals there were.
    int DeliverPending();

    std::vector<std::pair<int, SignalObserver*>> GetObservers();

private:
    void Notify(int signal);

    std::mutex m_mutex;
    std::vector<std::pair<int, SignalObserver*>> m_observers;
    UniqueFd m_pipe_read;
    UniqueFd m_pipe_write;
    std::vector<std::pair<int, struct sigaction>> m_saved_actions;
};

} // namespace corvid
