// The debugger flag, the signal policy, the observer registry and the D-Bus
// dispatcher's owner.
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>

#include <dbus-c++/dispatcher.h>
#include <dbus-c++/eventloop-integration.h>
#include <gtest/gtest.h>

#include "platform/async_signals.h"
#include "platform/dbus_dispatcher.h"
#include "platform/debug_helpers.h"
#include "support/fake_context.h"
#include "support/programs.h"

namespace {

TEST(DebugHelpers, TheLastVxDebugPairDecides)
{
    for (const auto& [cmdline, enabled] :
         {std::pair{"quiet vx.debug=0", false}, {"vx.debug=2", true}, {"vx.debug", true},
          {"vx.debug=yes\tro", true}, {"vx.debugx=1 xvx.debug=1", false}, {"vx.debug=1 vx.debug=0", false},
          {"VX.DEBUG=1", false}, {"", false}})
        EXPECT_EQ(DebugHelpers::ParseDebugFlag(cmdline), enabled) << cmdline;
}

// In a child: the flag read once from the context's /proc/cmdline, then the
// policy's effect on SIGINT. Exits with the bits: 1 enabled, 2 SIGINT
// blocked, 4 a SIGINT was handled in place and counted.
int ConfigureWithCommandLine(const std::string& cmdline)
{
    FakeContext context;
    context.WriteFile("/proc/cmdline", cmdline + "\n");
    const bool enabled = DebugHelpers::IsDebuggerEnabled();
    context.WriteFile("/proc/cmdline", "vx.debug=" + std::string(enabled ? "0" : "1") + "\n");
    if (DebugHelpers::IsDebuggerEnabled() != enabled)
        return 64; // computed again: not once
    corvid::ConfigureSignals(SIG_BLOCK);
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    int bits = (enabled ? 1 : 0) | (sigismember(&mask, SIGINT) ? 2 : 0);
    if (enabled) {
        raise(SIGINT);
        bits |= corvid::GetSigintCount() == 1 ? 4 : 0;
    }
    return bits;
}

TEST(ConfigureSignals, SigintIsBlockedUnlessTheDebuggerIsEnabled)
{
    // The file's line feed is not part of the last parameter, either way.
    EXPECT_EXIT(std::exit(ConfigureWithCommandLine("quiet vx.debug=0")), testing::ExitedWithCode(2), "^$");
    EXPECT_EXIT(std::exit(ConfigureWithCommandLine("ro vx.debug")), testing::ExitedWithCode(1 | 4),
                "^SIGINT received\n$");
}

struct Counter : corvid::SignalObserver {
    void OnSignal(int signal) override { total += signal; }
    int total = 0;
};

TEST(SignalDispatcher, ObserversInOrderAndDeliveryOutsideTheHandler)
{
    corvid::SignalDispatcher dispatcher;
    Counter a, b;
    dispatcher.Attach(SIGUSR1, &a);
    dispatcher.Attach(SIGUSR1, &a);
    dispatcher.Attach(SIGUSR2, &b);
    dispatcher.Detach(SIGUSR1, &a);
    EXPECT_EQ(dispatcher.GetObservers(), (std::vector<std::pair<int, corvid::SignalObserver*>>{
                                             {SIGUSR1, &a}, {SIGUSR2, &b}}));
    raise(SIGUSR1);
    raise(SIGUSR2);
    EXPECT_EQ(a.total + b.total, 0); // nothing runs in the handler but the pipe write
    EXPECT_EQ(dispatcher.DeliverPending(), 2);
    EXPECT_EQ(std::make_pair(a.total, b.total), std::make_pair(SIGUSR1, SIGUSR2));

    // A blocked watched signal stays pending and is taken all the same.
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
    raise(SIGUSR1);
    EXPECT_EQ(dispatcher.DeliverPending(), 1);
    pthread_sigmask(SIG_UNBLOCK, &usr1, nullptr);
    dispatcher.Detach(SIGUSR1, &a);
    dispatcher.Detach(SIGUSR2, &b);
}

enum class Loop { OnAThread, HangingOnAThread, NoneAndItsWakeUpFails };

// In a child: an owner that asks for the thread comes and goes; a timeout,
// added before the thread so that its first wait ends with it, reports the
// thread that runs it and, told to hang, stays there. At exit the static
// owner, the last one, stops the loop and joins the thread; without a thread
// a failed wake-up there leaves the exit status as it is.
[[noreturn]] void ExitAfter(Loop loop)
{
    auto* dispatcher = dynamic_cast<DBus::BusDispatcher*>(DBus::default_dispatcher);
    if (loop == Loop::NoneAndItsWakeUpFails)
        ::close(dispatcher->_fdunlock[1]), std::exit(3);
    const bool hang = loop == Loop::HangingOnAThread;
    struct Probe {
        void Expired(DBus::DefaultTimeout& timeout)
        {
            timeout.enabled(false);
            char name[16] = {};
            sigset_t blocked;
            prctl(PR_GET_NAME, name);
            pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
            ran.set_value(std::string(name) + (sigismember(&blocked, SIGTERM) && sigismember(&blocked, SIGHUP)
                                                   ? " with SIGTERM and SIGHUP blocked\n"
                                                   : "\n"));
            while (hang)
                pause();
        }
        bool hang;
        std::promise<std::string> ran;
    } probe{hang, {}};
    std::string seen = "nothing ran the loop\n";
    {
        FakeContext context; // where the thread reads the debugger flag
        context.WriteFile("/proc/cmdline", "quiet\n");
        auto* timeout = new DBus::DefaultTimeout(1, false, dispatcher); // the dispatcher deletes it
        timeout->expired = new DBus::Callback<Probe, void, DBus::DefaultTimeout&>(&probe, &Probe::Expired);
        { const EnsureDBusDispatcher with_thread(true); }
        std::future<std::string> ran = probe.ran.get_future();
        if (ran.wait_for(std::chrono::seconds(5)) == std::future_status::ready)
            seen = ran.get();
    }
    std::fputs(seen.c_str(), stderr);
    std::exit(3);
}

TEST(EnsureDBusDispatcher, ItsThreadDispatchesAndIsJoinedAtExitWithinTenSecondsAndAFailedWakeUpKeepsTheStatus)
{
    VXTEST_REQUIRE_ISOLATION();
    ASSERT_NE(DBus::default_dispatcher, nullptr); // installed before main
    const std::string ran = "^DbusDispatcher with SIGTERM and SIGHUP blocked\n";
    const struct {
        Loop loop;
        std::function<bool(int)> ended;
        std::string err;
        double least_s, most_s;
    } runs[] = {{Loop::OnAThread, testing::ExitedWithCode(3), ran + "$", 0, 5},
                {Loop::HangingOnAThread, testing::KilledBySignal(SIGABRT),
                 ran + "~EnsureDBusDispatcher thread failed to exit in a timely manner\\.\n$", 10, 15},
                {Loop::NoneAndItsWakeUpFails, testing::ExitedWithCode(3), "^$", 0, 5}};
    for (const auto& run : runs) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EXIT(ExitAfter(run.loop), run.ended, run.err);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        EXPECT_TRUE(took.count() >= run.least_s && took.count() < run.most_s) << took.count() << " s";
    }
}

} // namespace
