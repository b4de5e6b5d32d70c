// The sysfs pin's file traffic, over regular files at the live paths of a
// scratch root, the event device's operations on the fake board, and the
// events the device class reads from a regular file whose queries this
// program answers itself.
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "hardware/event_device.h"
#include "hardware/gpio_sysfs.h"
#include "support/fake_context.h"
#include "support/oracles.h"
#include "support/programs.h"

// While set, the evdev queries ('E' requests) on regular files are answered
// by the ioctl below, so that the device class opens a file of events.
static bool g_answer_queries = false;

// The C library's ioctl for this program (the code under test calls it by
// name): answers a query as evdev does for a device without pins, filling the
// length the request names with zeros; every other call goes to the kernel.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    struct stat st;
    if (!g_answer_queries || _IOC_TYPE(request) != 'E' || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        return static_cast<int>(syscall(SYS_ioctl, fd, request, arg));
    std::memset(arg, 0, _IOC_SIZE(request));
    return static_cast<int>(_IOC_SIZE(request));
}

namespace {

using vxtest::Le32;
using vxtest::WhatOf;

// Pin 64 as sysfs shows it once exported; an absent pin exported is the
// device test's and the simulated player's gpio-high, on the kernel's sysfs.
TEST(GpioSysfs, ReadsTheFirstByteWritesTheDirectionOnlyWhenItChangesAndReportsAFailedExport)
{
    FakeContext context;
    const auto pin = [&](const std::string& direction, const std::string& value) {
        context.WriteFile("/sys/class/gpio/gpio64/direction", direction);
        context.WriteFile("/sys/class/gpio/gpio64/value", value);
    };
    const auto file = [&](const std::string& name) { return vxtest::ReadFile(context.Path("/sys/class/gpio/" + name)); };
    const auto read = [&](const char* value) {
        pin("in\n", value);
        return WhatOf([] { throw std::runtime_error(GpioSysfs(64).Read() ? "high" : "low"); });
    };
    EXPECT_EQ(read("1\n"), "high");
    EXPECT_EQ(read("0"), "low");
    EXPECT_EQ(read(""), "GPIO64 Failed read: 11 (Resource temporarily unavailable)");
    EXPECT_EQ(read("x"), "Unexpected value when reading GPIO");
    EXPECT_EQ(file("export"), ""); // an exported pin is not exported again

    pin("in\n", "0");
    GpioSysfs input(64);
    input.Initialize(GpioBase::GPIO_MODE_INPUT, GpioBase::GPIO_STATE_HIGH); // already an input
    input.SetHigh();
    input.SetLow();
    input.Initialize(GpioBase::GPIO_MODE_OUTPUT, GpioBase::GPIO_STATE_RELEASED);
    // Written where the files stand: direction after the byte read at
    // construction, value from its start.
    EXPECT_EQ(file("gpio64/direction") + " " + file("gpio64/value"), "ioutin 10");
    pin("out\n", "0");
    GpioSysfs output(64);
    output.SetHigh();
    EXPECT_EQ(file("gpio64/direction") + " " + file("gpio64/value"), "out\n 1");

    testing::internal::CaptureStderr();
    const std::string error = context.Path("/sys/class/gpio/export") + ": No such file or directory (errno 2)";
    EXPECT_EQ(WhatOf([] { GpioSysfs absent(65); }), error);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to export GPIO65: " + error + "\n");
}

TEST(EventDevice, SetOutputsWritesOnlyTheChangedPinsLowestFirst)
{
    FakeContext context;
    FakeGpioBoard& board = context.GpioBoard();
    board.outputs = 0xFF;
    const auto leds = context.OpenGpioEventDevice(EV_LED);
    board.output_levels = 0b001;
    leds->SetOutputs(0b101, 0);     // nothing in the mask
    leds->SetOutputs(0b001, 0b111); // nothing changes
    leds->SetOutputs(0b101, 0b111);
    leds->SetOutputs(0b010, 0b111);
    using E = FakeGpioBoard::Event;
    const std::uint64_t t = context.GetClock().NowNanoseconds();
    EXPECT_EQ(board.events, (std::vector<E>{{t, 10, 1}, {t, 8, 0}, {t, 9, 1}, {t, 10, 0}}));
    EXPECT_EQ(WhatOf([&] { context.OpenGpioEventDevice(EV_KEY)->GetInput(32); }), "Pin not available");
}

// The 24-byte events read, and one cut short; a file that answers no query.
// The queries' requests and the events written are the device test's
// (tests/device), on the kernel's evdev.
TEST(LinuxEventDevice, ReadsWholeEventsAndAFailingQueryIsAnErrorWithoutContext)
{
    vxtest::TempDir dir;
    EXPECT_EQ(WhatOf([&] { LinuxEventDevice(dir.WriteFile("plain", ""), EV_LED); }),
              "Inappropriate ioctl for device (errno 25)");
    struct Answering {
        Answering() { g_answer_queries = true; }
        ~Answering() { g_answer_queries = false; }
    } answering;
    const std::string key = Le32(5) + Le32(0) + Le32(6) + Le32(0) + "\x01" + '\0' + "\x14" + '\0' + Le32(1);
    LinuxEventDevice keys(dir.WriteFile("events", key + key.substr(0, 23)), EV_KEY);
    input_event e{};
    keys.ReadEvent(e);
    EXPECT_EQ(std::make_tuple(e.input_event_sec, e.input_event_usec, e.type, e.code, e.value),
              std::make_tuple(5L, 6L, EV_KEY, 20, 1));
    EXPECT_EQ(WhatOf([&] { keys.ReadEvent(e); }), "Input/output error (errno 5)");
}

} // namespace
