// The blink code as the fake board sees it, timed by the fake clock: event
// times are exact, so every phase is asserted to the millisecond.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <string>
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

TEST(ShowLedErrorPattern, SigtermBreaksOffAfterTheFlashAndDetaches)
{
    FakeContext context;
    corvid::SignalDispatcher dispatcher;
    // Raised as round two's first flash ends; taken after its off phase.
    context.GetClock().on_sleep = [](std::uint64_t ns) {
        if (ns == T0 + 4350 * MS)
            raise(SIGTERM);
        ASSERT_LT(ns, T0 + 10000 * MS) << "the signal did not break the pattern off";
    };
    EXPECT_TRUE(ShowLedErrorPattern(ERROR_LED_GENERAL, LED_SIGNALS_BREAK));
    EXPECT_EQ(context.GpioBoard().events, Flashes({1500, 2050, 4100}));
    EXPECT_EQ(context.GetClock().NowNanoseconds(), T0 + 4650 * MS);
    EXPECT_TRUE(dispatcher.GetObservers().empty());
    struct sigaction action {};
    sigaction(SIGTERM, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL); // the earlier action is back
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
