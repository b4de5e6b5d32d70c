// The blink code as the fake board sees it: on the fake clock, where event
// times are exact and every phase is asserted to the millisecond, and on the
// system's clock with real signals.
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "hardware/leds.h"
#include "support/fake_context.h"
#include "support/oracles.h"
#include "support/programs.h"

namespace {

using Events = std::vector<FakeGpioBoard::Event>;
constexpr std::uint64_t MS = 1'000'000, T0 = 1'000'000'000; // the fake clock starts at 1 s

TEST(ShowLedErrorPattern, AButtonWatchedFromTheFirstRoundEndsAFlash)
{
    FakeContext context;
    context.GpioBoard().input_levels = [](std::uint64_t ns) { return ns >= T0 + 1600 * MS ? 1u << 12 : 0u; };
    EXPECT_TRUE(ShowLedErrorPattern(ERROR_LED_ETHERNET, LED_WATCH_BUTTON));
    EXPECT_EQ(context.GpioBoard().events, (Events{{T0 + 1500 * MS, 17, 1}, {T0 + 1600 * MS, 17, 0}}));
}

// Real signals in real waits, on the system's clock. Each gap between the
// board's events (on and off, in turn) is never shorter than its phase, and
// at most LATE_MS longer: a loaded build machine (two test programs and a
// simulated player on two cores) wakes a sleeper that much late, while a
// signal noticed a round too late shows 1500 ms and more.
constexpr double LATE_MS = 200;

// Sends signal (0: none) at at_ns (CLOCK_MONOTONIC) from a thread that
// blocks every signal, so that the thread showing the pattern takes it in
// its handler, as from another process; sent_ns is when it was sent.
std::thread SendAt(int signal, std::uint64_t at_ns, std::uint64_t& sent_ns)
{
    return std::thread([=, &sent_ns] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        using std::chrono::steady_clock; // CLOCK_MONOTONIC
        std::this_thread::sleep_until(steady_clock::time_point(std::chrono::nanoseconds(at_ns)));
        sent_ns = std::uint64_t(steady_clock::now().time_since_epoch().count());
        kill(getpid(), signal);
    });
}

void ExpectGaps(std::uint64_t start, const Events& events, std::uint64_t end, const std::vector<double>& phases,
                const std::string& what)
{
    std::vector<std::uint64_t> times{start};
    for (const FakeGpioBoard::Event& e : events) {
        EXPECT_EQ(std::make_pair(e.code, e.value), std::make_pair(17u, int(times.size() % 2))) << what;
        times.push_back(e.ns);
    }
    times.push_back(end);
    ASSERT_EQ(times.size(), phases.size() + 1) << what;
    for (std::size_t i = 0; i < phases.size(); ++i) {
        const double gap = double(times[i + 1] - times[i]) / 1e6;
        EXPECT_TRUE(gap >= phases[i] && gap <= phases[i] + LATE_MS) << what << ", gap " << i << ": " << gap;
    }
}

TEST(ShowLedErrorPatternRealTime, SignalsShortenNoPhaseAndCountOnlyForTheirPattern)
{
    FakeContext context;
    FakeClock& clock = context.GetClock();
    clock.UseSystemClock();
    corvid::SignalDispatcher dispatcher;
    FakeGpioBoard& board = context.GpioBoard();
    std::uint64_t start = 0, press = 0, sent = 0;
    board.input_levels = [&](std::uint64_t ns) { return ns >= press ? 1u << BUTTON_INPUT_BIT : 0u; };
    constexpr unsigned int SIGNALS = LED_SIGNALS_BREAK | LED_STOP_AFTER_THREE;
    const struct {
        int signal; // 0: none
        double at_ms, press_ms, end_ms;
        unsigned int flags;
        std::vector<double> phases;
        const char* what;
    } cases[] = {
        // Pattern 1: the pause until 1500 ms, the flash until 1750, its off
        // phase until 2050, where the flag is read, wherever the signal came.
        {SIGTERM, 1000, 1e9, 2050, SIGNALS, {1500, 250, 300}, "in the pause"},
        {SIGINT, 1600, 1e9, 2050, SIGNALS, {1500, 250, 300}, "in the flash"},
        {SIGTERM, 1900, 1e9, 2050, SIGNALS, {1500, 250, 300}, "in the off phase"},
        // The button ends a pattern before the flag is read: the signal is
        // taken, not delivered. The next pattern starts clean: its first
        // flash is not its last, and the button, pressed in round one and
        // watched from round two, ends it at round two's first poll.
        {SIGTERM, 400, 800, 800, SIGNALS | LED_WATCH_BUTTON, {800, 0, 0}, "left at the button"},
        {0, 0, 1000, 2060, SIGNALS | LED_WATCH_BUTTON_AFTER_FIRST, {1500, 250, 310, 0, 0}, "the next pattern"},
    };
    for (const auto& c : cases) {
        board.events.clear();
        start = clock.NowNanoseconds();
        press = start + std::uint64_t(c.press_ms * 1e6);
        std::thread sender = SendAt(c.signal, start + std::uint64_t(c.at_ms * 1e6), sent);
        EXPECT_TRUE(ShowLedErrorPattern(ErrorLedPattern(1), c.flags)) << c.what;
        const std::uint64_t end = clock.NowNanoseconds();
        sender.join();
        ExpectGaps(start, board.events, end, c.phases, c.what);
        // The latency; a signal sent late only shortens it, and a wait that
        // ends early shows in its own gap.
        EXPECT_LE((double(end) - double(sent)) / 1e6, c.end_ms - c.at_ms + LATE_MS) << c.what;
        EXPECT_TRUE(dispatcher.GetObservers().empty());
        struct sigaction action {};
        sigaction(SIGTERM, nullptr, &action);
        EXPECT_EQ(action.sa_handler, SIG_DFL) << c.what; // the earlier action is back
    }
}

TEST(ShowLedErrorPattern, AWaitOverTheMillisecondWrapLastsItsTime)
{
    FakeContext context;
    // The millisecond count is 200 ms short of wrapping: the first pause ends
    // at 1300 after the wrap, not at once.
    context.GetClock().now_ns = (0x100000000ULL - 200) * MS;
    EXPECT_FALSE(ShowLedErrorPattern(ERROR_LED_GENERAL, LED_WATCH_BUTTON | LED_STOP_AFTER_THREE));
    const std::vector<unsigned int>& sleeps = context.GetClock().sleeps;
    EXPECT_EQ(sleeps.size(), 3 * (150 + 2 * (25 + 30)));
    EXPECT_EQ(context.GpioBoard().events.front().ns, (0x100000000ULL + 1300) * MS);
    EXPECT_EQ(context.GpioBoard().open_sides, 0); // both sides closed again
}

TEST(ShowLedErrorPattern, WithoutADeviceItThrowsAndDetaches)
{
    FakeContext context;
    corvid::SignalDispatcher dispatcher;
    context.GpioBoard().present = false;
    EXPECT_EQ(vxtest::WhatOf([] { ShowLedErrorPattern(ERROR_LED_GENERAL, LED_SIGNALS_BREAK); }),
              context.Path("/dev/input/veltrix-gpio") + ": No such file or directory (errno 2)");
    EXPECT_TRUE(dispatcher.GetObservers().empty());
}

} // namespace
