// The front-panel error LED: a failure shown as a blink code (a pause, a
// number of short flashes, again), with "error LED" told to the boot-splash
// display through "/boot-splash-pipe" once per round.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/async_signals.h"

// The number of LED flashes per round of an error blink code (at least 1).
enum ErrorLedPattern : int {
    ERROR_LED_GENERAL = 2,  // memory failures and every unexpected exception
    ERROR_LED_ETHERNET = 7, // Ethernet failures
};

// Flags of ShowLedErrorPattern.
inline constexpr unsigned int LED_WATCH_BUTTON = 0x04;             // from the first round on
inline constexpr unsigned int LED_WATCH_BUTTON_AFTER_FIRST = 0x08; // from the second round on
inline constexpr unsigned int LED_STOP_AFTER_THREE = 0x10;         // return false after three rounds
inline constexpr unsigned int LED_CRASH_AFTER_SEVENTEEN = 0x20;    // unless 0x10 is set
inline constexpr unsigned int LED_SIGNALS_BREAK = 0x40;            // SIGINT and SIGTERM break off
// What the start-up check passes: crash after seventeen rounds, button from round two.
inline constexpr unsigned int LED_CHECK_FLAGS = 40;

inline constexpr const char* BOOT_SPLASH_PIPE_PATH = "/boot-splash-pipe";
inline constexpr unsigned int ERROR_LED_OUTPUT_BIT = 9; // mask 0x200
inline constexpr unsigned int BUTTON_INPUT_BIT = 12;

// Lets SIGINT and SIGTERM break a blink code off: attached to the
// corvid::SignalDispatcher for both while a pattern with 0x40 runs.
class LedErrorBreaker : public corvid::SignalObserver {
public:
    LedErrorBreaker() = default;
    // Detaches from SIGINT, then SIGTERM, when attached.
    ~LedErrorBreaker() override;

    // Attaches for SIGINT, then SIGTERM; the signals taken before (pending
    // in the dispatcher) are delivered and do not set the flag.
    void Attach();
    void OnSignal(int signal) override;
    bool BreakRequested() const { return m_break_requested.load() != 0; }

private:
    bool m_attached = false;
    std::atomic<std::uint32_t> m_break_requested{0};
};

// Shows pattern on the error LED of the GPIO event device (output bit 9),
// watching the button (input bit 12) as flags say. Returns true when the
// button or a signal broke the pattern off, false after three rounds with
// 0x10; with 0x20 (and without 0x10), seventeen rounds end in a deliberate
// crash: "Forced crash due to LED error <pattern>\n" and a fatal assertion.
// A pattern below 1 is a fatal assertion before anything is opened. A GPIO
// device that cannot be opened throws, after everything opened is closed.
bool ShowLedErrorPattern(ErrorLedPattern pattern, unsigned int flags);
