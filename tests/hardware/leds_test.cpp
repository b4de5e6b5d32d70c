// The blink code as the fake board sees it: on the fake clock, where event
// times are exact and every phase is asserted to the millisecond, and on the
// system's clock with real signals.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
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

// LED on and off events of flashes at the given start times (ms after T0).
Events Flashes(const std::vector<std::uint64_t>& starts)
{
    Events events;
    for (const std::uint64_t start : starts) {
        events.push_back({T0 + start * MS, 17, 1});
        events.push_back({T0 + (start + 250) * MS, 17, 0});
    }
    return events;
}

TEST(ShowLedErrorPattern, ThreeRoundsWithTheSplashMessageEachRound)
{
    FakeContext context;
    const std::string fifo = context.Path(BOOT_SPLASH_PIPE_PATH);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const corvid::UniqueFd reader(open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_FALSE(ShowLedErrorPattern(ErrorLedPattern(1), LED_STOP_AFTER_THREE));
    // Round n starts at 2050 (n - 1) ms: a 1500 ms pause, 250 on, 300 off.
    EXPECT_EQ(context.GpioBoard().events, Flashes({1500, 3550, 5600}));
    char received[64] = {};
    EXPECT_EQ(read(reader.Get(), received, sizeof received), 27);
    EXPECT_EQ(std::string(received), "error LEDerror LEDerror LED");
    EXPECT_EQ(context.GpioBoard().open_sides, 0); // both sides closed again
}

// The events of a pattern broken off by the button, pressed from press_ms on.
Events PressedFrom(std::uint64_t press_ms, ErrorLedPattern pattern, unsigned int flags)
{
    FakeContext context;
    context.GpioBoard().input_levels = [=](std::uint64_t ns) { return ns >= T0 + press_ms * MS ? 1u << 12 : 0u; };
    EXPECT_TRUE(ShowLedErrorPattern(pattern, flags));
    return context.GpioBoard().events;
}

TEST(ShowLedErrorPattern, TheButtonBreaksOffAtTheNextPoll)
{
    // Pattern 2, rounds of 2600 ms: a press from 500 ms on is ignored in round
    // one and seen at the first poll of round two, whose flash is not waited for.
    Events expected = Flashes({1500, 2050});
    expected.insert(expected.end(), {{T0 + 2610 * MS, 17, 1}, {T0 + 2610 * MS, 17, 0}});
    EXPECT_EQ(PressedFrom(500, ERROR_LED_GENERAL, LED_CHECK_FLAGS), expected);
    // Watched from the first round on, a press during a flash ends it.
    EXPECT_EQ(PressedFrom(1600, ERROR_LED_ETHERNET, LED_WATCH_BUTTON),
              (Events{{T0 + 1500 * MS, 17, 1}, {T0 + 1600 * MS, 17, 0}}));
}

// Real signals in real waits: the system's clock, and each signal sent to
// the process by a thread that blocks it, so that the thread showing the
// pattern takes it in its handler, as from another process. Gaps between
// the board's events are asserted in milliseconds: never shorter than the
// phase, and at most LATE_MS longer on a loaded machine.
constexpr double LATE_MS = 60;

double Milliseconds(std::uint64_t from_ns, std::uint64_t to_ns)
{
    return (double(to_ns) - double(from_ns)) / 1e6;
}

// Sends signal at the monotonic time at_ns; sent_ns is when it did.
class SignalAt {
public:
    SignalAt(int signal, std::uint64_t at_ns)
        : m_thread([this, signal, at_ns] {
              sigset_t both;
              sigemptyset(&both);
              sigaddset(&both, SIGINT);
              sigaddset(&both, SIGTERM);
              pthread_sigmask(SIG_BLOCK, &both, nullptr);
              const timespec at{time_t(at_ns / 1'000'000'000), long(at_ns % 1'000'000'000)};
              while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR) {
              }
              timespec now{};
              clock_gettime(CLOCK_MONOTONIC, &now);
              sent_ns = std::uint64_t(now.tv_sec) * 1'000'000'000 + std::uint64_t(now.tv_nsec);
              kill(getpid(), signal);
          })
    {
    }
    ~SignalAt() { m_thread.join(); }

    std::uint64_t sent_ns = 0;

private:
    std::thread m_thread;
};

// The gaps from start through the board's events to end, each against the
// length of the phases it spans.
void ExpectGaps(std::uint64_t start, const Events& events, std::uint64_t end, const std::vector<double>& phases,
                const std::string& what)
{
    std::vector<std::uint64_t> times{start};
    for (const FakeGpioBoard::Event& e : events)
        times.push_back(e.ns);
    times.push_back(end);
    ASSERT_EQ(times.size(), phases.size() + 1) << what;
    for (std::size_t i = 0; i < phases.size(); ++i) {
        const double gap = Milliseconds(times[i], times[i + 1]);
        EXPECT_GE(gap, phases[i]) << what << ", gap " << i;
        EXPECT_LE(gap, phases[i] + LATE_MS) << what << ", gap " << i;
    }
}

std::vector<std::pair<unsigned int, int>> Writes(const Events& events)
{
    std::vector<std::pair<unsigned int, int>> writes;
    for (const FakeGpioBoard::Event& e : events)
        writes.emplace_back(e.code, e.value);
    return writes;
}

TEST(ShowLedErrorPatternRealTime, ASignalEndsThePatternAfterTheOffPhaseAndShortensNoPhase)
{
    // Pattern 1: the pause until 1500 ms, the flash until 1750, its off
    // phase until 2050, where the flag is read, wherever the signal came.
    const struct {
        int signal;
        double at_ms;
        const char* where;
    } cases[] = {{SIGTERM, 1000, "in the pause"}, {SIGINT, 1600, "in the flash"}, {SIGTERM, 1900, "in the off phase"}};
    for (const auto& c : cases) {
        FakeContext context;
        context.GetClock().UseSystemClock();
        corvid::SignalDispatcher dispatcher;
        const std::uint64_t start = context.GetClock().NowNanoseconds();
        std::uint64_t end = 0, sent = 0;
        {
            SignalAt sender(c.signal, start + std::uint64_t(c.at_ms * 1e6));
            EXPECT_TRUE(ShowLedErrorPattern(ErrorLedPattern(1), LED_SIGNALS_BREAK | LED_STOP_AFTER_THREE)) << c.where;
            end = context.GetClock().NowNanoseconds();
            sent = sender.sent_ns;
        }
        const Events& events = context.GpioBoard().events;
        EXPECT_EQ(Writes(events), (std::vector<std::pair<unsigned int, int>>{{17, 1}, {17, 0}})) << c.where;
        ExpectGaps(start, events, end, {1500, 250, 300}, c.where);
        // From the signal to the return: the rest of the round's first flash.
        EXPECT_NEAR(Milliseconds(sent, end), 2050 - c.at_ms, LATE_MS) << c.where;
        EXPECT_TRUE(dispatcher.GetObservers().empty());
        for (const int signal : {SIGINT, SIGTERM}) {
            struct sigaction action {};
            sigaction(signal, nullptr, &action);
            EXPECT_EQ(action.sa_handler, SIG_DFL) << signal; // the earlier action is back
        }
    }
}

TEST(ShowLedErrorPatternRealTime, ASignalLeftWhenTheButtonEndsAPatternDoesNotBreakTheNext)
{
    FakeContext context;
    FakeClock& clock = context.GetClock();
    clock.UseSystemClock();
    corvid::SignalDispatcher dispatcher;
    FakeGpioBoard& board = context.GpioBoard();
    std::uint64_t press = 0;
    board.input_levels = [&](std::uint64_t ns) { return ns >= press ? 1u << BUTTON_INPUT_BIT : 0u; };

    // SIGTERM in the pause, then the button: the pattern ends before the
    // breaker's flag is read, with the signal taken but not delivered.
    std::uint64_t start = clock.NowNanoseconds();
    press = start + 800'000'000;
    {
        SignalAt sender(SIGTERM, start + 400'000'000);
        EXPECT_TRUE(ShowLedErrorPattern(ErrorLedPattern(1), LED_WATCH_BUTTON | LED_SIGNALS_BREAK));
    }
    ExpectGaps(start, board.events, clock.NowNanoseconds(), {800, 0, 0}, "the first pattern");

    // The next call starts clean: its first flash is not its last, and the
    // button, watched from round two, ends it in round two's pause.
    board.events.clear();
    start = clock.NowNanoseconds();
    press = start + 2'200'000'000;
    EXPECT_TRUE(ShowLedErrorPattern(ErrorLedPattern(1), LED_WATCH_BUTTON_AFTER_FIRST | LED_SIGNALS_BREAK));
    ExpectGaps(start, board.events, clock.NowNanoseconds(), {1500, 250, 300 + 150, 0, 0}, "the second pattern");
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

TEST(ShowLedErrorPatternDeathTest, PatternZeroAndTheForcedCrash)
{
    VXTEST_REQUIRE_ISOLATION();
    const std::string where = "lib/hardware/leds:";
    const std::string function = ":bool ShowLedErrorPattern(ErrorLedPattern, unsigned int)\n";
    FakeContext context;
    EXPECT_EXIT(ShowLedErrorPattern(ErrorLedPattern(0), 0), testing::KilledBySignal(SIGABRT), "^$");
    EXPECT_NE(vxtest::ReadFile(vxtest::KernelLogFile()).find(": pattern > 0\nASSERT Executing " + where +
                                                             "168" + function),
              std::string::npos);
    EXPECT_EXIT(ShowLedErrorPattern(ERROR_LED_ETHERNET, LED_CHECK_FLAGS), testing::KilledBySignal(SIGABRT),
                "^Forced crash due to LED error 7\n$");
    EXPECT_NE(vxtest::ReadFile(vxtest::KernelLogFile()).find(": false\nASSERT Executing " + where + "226" +
                                                             function),
              std::string::npos);
}

} // namespace
