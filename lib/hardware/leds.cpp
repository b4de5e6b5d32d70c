#include "hardware/leds.h"

#include <fcntl.h>
#include <linux/input.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "hardware/context.h"
#include "hardware/event_device.h"
#include "platform/assert.h"
#include "platform/handles.h"
#include "platform/trace.h"

namespace {

constexpr const char* FUNCTION = "bool ShowLedErrorPattern(ErrorLedPattern, unsigned int)";
constexpr std::uint32_t LED_MASK = 1u << ERROR_LED_OUTPUT_BIT;
constexpr unsigned int PAUSE_MS = 1500, ON_MS = 250, OFF_MS = 300;
constexpr unsigned int POLL_US = 10000;
constexpr char SPLASH_MESSAGE[] = "error LED";

// The monotonic clock in milliseconds, kept as an unsigned 32-bit number.
std::uint32_t Milliseconds(corvid::Clock& clock)
{
    const timespec now = clock.Monotonic();
    return static_cast<std::uint32_t>(static_cast<std::uint64_t>(now.tv_sec) * 1000 +
                                      static_cast<std::uint64_t>(now.tv_nsec) / 1000000);
}

// One blink code being shown.
class Blinker {
public:
    Blinker(corvid::Clock& clock, EventDevice& led, EventDevice& button, bool watch)
        : m_clock(clock), m_led(led), m_button(button), m_watch(watch)
    {
    }

    void Led(bool on) { m_led.SetOutputs(on ? LED_MASK : 0, LED_MASK); }
    void WatchButton() { m_watch = true; }

    // Waits ms; true when the button broke the wait off.
    bool Wait(unsigned int ms)
    {
        if (!m_watch) {
            m_clock.SleepMicroseconds(ms * 1000);
            return false;
        }
        const std::uint32_t start = Milliseconds(m_clock);
        const std::uint32_t deadline = start + ms; // modulo 2^32
        const bool wrapped = deadline < start;
        for (;;) {
            m_clock.SleepMicroseconds(POLL_US);
            if (m_button.GetInput(BUTTON_INPUT_BIT))
                return true;
            const std::uint32_t now = Milliseconds(m_clock);
            if (wrapped && now > 0x7FFFFFF)
                continue; // until the count has wrapped too
            if (now >= deadline)
                return false;
        }
    }

private:
    corvid::Clock& m_clock;
    EventDevice& m_led;
    EventDevice& m_button;
    bool m_watch;
};

// Tells the boot-splash display; a failure is reported, the pattern goes on.
void TellSplash(const corvid::UniqueFd& pipe)
{
    if (!pipe.IsOpen())
        return;
    const ssize_t written = ::write(pipe.Get(), SPLASH_MESSAGE, sizeof SPLASH_MESSAGE - 1);
    if (written < 0)
        corvid::PrintGuarded("Failed to write to boot-splash-pipe: {}\n", std::strerror(errno));
    else if (written < static_cast<ssize_t>(sizeof SPLASH_MESSAGE - 1))
        corvid::PrintGuarded("Failed to write all of the message to boot-splash-pipe\n");
}

} // namespace

LedErrorBreaker::~LedErrorBreaker()
{
    if (m_attached) {
        corvid::SignalDispatcher::GetInstance()->Detach(SIGINT, this);
        corvid::SignalDispatcher::GetInstance()->Detach(SIGTERM, this);
    }
}

void LedErrorBreaker::Attach()
{
    corvid::SignalDispatcher& dispatcher = *corvid::SignalDispatcher::GetInstance();
    m_attached = true;
    dispatcher.Attach(SIGINT, this);
    dispatcher.Attach(SIGTERM, this);
    // A pattern starts clean: what was taken before it (a signal that came
    // as the button ended the last one) goes to the observers as it is due,
    // and does not count for this pattern.
    dispatcher.DeliverPending();
    m_break_requested.store(0);
}

void LedErrorBreaker::OnSignal(int)
{
    m_break_requested.store(1);
}

bool ShowLedErrorPattern(ErrorLedPattern pattern, unsigned int flags)
{
    CORVID_ASSERT(pattern > 0, "lib/hardware/leds", 168, FUNCTION, "pattern > 0");

    // Destroyed in reverse: the pipe, the button, the LED, then the breaker
    // (which detaches) on every way out but the crash.
    LedErrorBreaker breaker;
    if (flags & LED_SIGNALS_BREAK)
        breaker.Attach();
    Context& context = *Context::GetInstance();
    const std::unique_ptr<EventDevice> led = context.OpenGpioEventDevice(EV_LED);
    const std::unique_ptr<EventDevice> button = context.OpenGpioEventDevice(EV_KEY);
    Blinker blinker(context.GetClock(), *led, *button, flags & LED_WATCH_BUTTON);
    const corvid::UniqueFd pipe(
        ::open(context.Path(BOOT_SPLASH_PIPE_PATH).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    const auto signalled = [&] {
        if (flags & LED_SIGNALS_BREAK)
            corvid::SignalDispatcher::GetInstance()->DeliverPending();
        return breaker.BreakRequested();
    };

    bool broken = false;
    unsigned int rounds = 0;
    for (;;) {
        TellSplash(pipe);
        blinker.Led(false);
        if (!broken)
            broken = blinker.Wait(PAUSE_MS);
        for (int flash = 0; flash < pattern; ++flash) {
            blinker.Led(true);
            if (!broken)
                broken = blinker.Wait(ON_MS);
            blinker.Led(false);
            if (broken)
                return true;
            broken = blinker.Wait(OFF_MS);
            if (broken || signalled())
                return true;
        }
        if (rounds <= 99) {
            ++rounds;
            if (flags & LED_STOP_AFTER_THREE) {
                if (rounds > 2)
                    return false;
            } else if ((flags & LED_CRASH_AFTER_SEVENTEEN) && rounds > 16) {
                corvid::PrintGuarded("Forced crash due to LED error {}\n", static_cast<int>(pattern));
                CORVID_ASSERT(false, "lib/hardware/leds", 226, FUNCTION, "false");
            }
        }
        if (flags & LED_WATCH_BUTTON_AFTER_FIRST)
            blinker.WatchButton();
    }
}
