// The debugger flag, the signal policy and the observer registry.
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include <dbus-c++/dispatcher.h>
#include <dbus-c++/eventloop-integration.h>
#include <gtest/gtest.h>

#include "platform/async_signals.h"
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

    VXTEST_REQUIRE_ISOLATION();
    EXPECT_EXIT(dispatcher.Detach(SIGUSR1, &a), testing::KilledBySignal(SIGABRT), "");
    EXPECT_NE(vxtest::ReadFile(vxtest::KernelLogFile())
                  .find(": i != m_observers.end()\nASSERT Executing lib/platform/async_signals.cpp:48:"),
              std::string::npos);
}

TEST(EnsureDBusDispatcher, TheStaticInstanceInstalledADispatcherBeforeMain)
{
    ASSERT_NE(DBus::default_dispatcher, nullptr);
    // The last instance wakes the loop at exit; when that write fails the
    // process still exits with its status, not SIGABRT.
    auto& dispatcher = dynamic_cast<DBus::BusDispatcher&>(*DBus::default_dispatcher);
    EXPECT_EXIT(
        {
            ::close(dispatcher._fdunlock[1]);
            std::exit(3);
        },
        testing::ExitedWithCode(3), "");
}

} // namespace
