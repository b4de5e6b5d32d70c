// The sysfs pin's file traffic, over regular files at the live paths of a
// scratch root, the event device's operations on the fake board, and the
// device class's wire format on a regular file whose queries this program
// answers itself (the simulated player runs it against the kernel's evdev).
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <bit>
#include <cstdarg>
#include <csignal>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "hardware/event_device.h"
#include "hardware/gpio_sysfs.h"
#include "support/fake_context.h"
#include "support/oracles.h"
#include "support/programs.h"

// While set, the evdev queries ('E' requests) on regular files are answered
// by the ioctl below.
static bool g_answer_queries = false;

// What a request fills: other bytes for every request (its type, number and
// length), another at every position.
static std::string Filled(unsigned long request)
{
    std::string bytes(_IOC_SIZE(request), '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>((request ^ request >> 16) * 37 + i * 11);
    return bytes;
}

// The C library's ioctl for this program (the code under test calls it by
// name): answers a query as evdev does, filling the length the request
// names; every other call goes to the kernel.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    struct stat st;
    if (!g_answer_queries || _IOC_TYPE(request) != 'E' || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        return static_cast<int>(syscall(SYS_ioctl, fd, request, arg));
    return static_cast<int>(Filled(request).copy(static_cast<char*>(arg), _IOC_SIZE(request)));
}

namespace {

using vxtest::Le32;
using vxtest::WhatOf;

class GpioSysfsTest : public testing::Test {
protected:
    // Pin 64 as sysfs shows it once exported.
    void Pin(const std::string& direction, const std::string& value)
    {
        m_context.WriteFile("/sys/class/gpio/gpio64/direction", direction);
        m_context.WriteFile("/sys/class/gpio/gpio64/value", value);
    }
    std::string File(const std::string& name) { return vxtest::ReadFile(m_context.Path("/sys/class/gpio/" + name)); }
    FakeContext m_context;
};

TEST_F(GpioSysfsTest, ReadsTheFirstByteOfTheValue)
{
    const auto read = [&](const char* value) {
        Pin("in\n", value);
        return WhatOf([] { throw std::runtime_error(GpioSysfs(64).Read() ? "high" : "low"); });
    };
    EXPECT_EQ(read("1\n"), "high");
    EXPECT_EQ(read("0"), "low");
    EXPECT_EQ(read(""), "GPIO64 Failed read: 11 (Resource temporarily unavailable)");
    EXPECT_EQ(read("x"), "Unexpected value when reading GPIO");
    EXPECT_EQ(File("export"), ""); // an exported pin is not exported again
}

TEST_F(GpioSysfsTest, WritesTheDirectionOnlyWhenItChanges)
{
    Pin("in\n", "0");
    GpioSysfs pin(64);
    pin.Initialize(GpioBase::GPIO_MODE_INPUT, GpioBase::GPIO_STATE_HIGH); // already an input
    pin.SetHigh();
    pin.SetLow();
    pin.Initialize(GpioBase::GPIO_MODE_OUTPUT, GpioBase::GPIO_STATE_RELEASED);
    // Written where the files stand: direction after the byte read at
    // construction, value from its start.
    EXPECT_EQ(File("gpio64/direction"), "ioutin");
    EXPECT_EQ(File("gpio64/value"), "10");

    Pin("out\n", "0");
    GpioSysfs output(64);
    output.SetHigh();
    EXPECT_EQ(File("gpio64/direction"), "out\n");
    EXPECT_EQ(File("gpio64/value"), "1");
}

TEST_F(GpioSysfsTest, ExportsAnAbsentPinAndReportsAFailedExport)
{
    m_context.WriteFile("/sys/class/gpio/export", "");
    // Exported, but no pin directory appears over regular files.
    EXPECT_EQ(WhatOf([] { GpioSysfs pin(64); }),
              m_context.Path("/sys/class/gpio/gpio64/value") + ": No such file or directory (errno 2)");
    EXPECT_EQ(File("export"), "64\n");

    std::remove(m_context.Path("/sys/class/gpio/export").c_str());
    testing::internal::CaptureStderr();
    EXPECT_EQ(WhatOf([] { GpioSysfs pin(65); }),
              m_context.Path("/sys/class/gpio/export") + ": No such file or directory (errno 2)");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Failed to export GPIO65: " + m_context.Path("/sys/class/gpio/export") +
                  ": No such file or directory (errno 2)\n");
}

TEST_F(GpioSysfsTest, InitializeRefusesModesSysfsCannotProvide)
{
    VXTEST_REQUIRE_ISOLATION();
    Pin("in\n", "0");
    EXPECT_EXIT(GpioSysfs(64).Initialize(GpioBase::GPIO_MODE_SPECIAL, GpioBase::GPIO_STATE_LOW),
                testing::KilledBySignal(SIGABRT), "");
    EXPECT_NE(vxtest::ReadFile(vxtest::KernelLogFile())
                  .find(": false\nASSERT Executing lib/hardware/gpio_sysfs.cpp:135:void "
                        "GpioSysfs::Initialize(GpioBase::GPIO_MODE, GpioBase::GPIO_STATE)\n"),
              std::string::npos);
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

// Each query's request (type, number and the 97-byte length) and the byte its
// 32 bits start at, read from what the request filled; the 24-byte events
// written and read.
TEST(LinuxEventDevice, QueriesAndEventsOnTheWire)
{
    struct Answering {
        Answering() { g_answer_queries = true; }
        ~Answering() { g_answer_queries = false; }
    } answering;
    // EVIOCGBIT(EV_KEY), EVIOCGBIT(EV_LED), EVIOCGKEY and EVIOCGLED, for 97 bytes each.
    constexpr unsigned long KEY_BITS = 0x80614521, LED_BITS = 0x80614531, KEYS = 0x80614518, LEDS = 0x80614519;
    vxtest::TempDir dir;
    const std::string path = dir.WriteFile("veltrix-gpio", "");
    for (const auto& [type, type_bits] : {std::pair{EV_KEY, KEY_BITS}, {EV_LED, LED_BITS}}) {
        LinuxEventDevice device(path, type);
        std::uint32_t inputs = 0, outputs = 0;
        for (unsigned int pin = 0; pin < 32; ++pin) {
            inputs |= std::uint32_t(device.GetInput(pin)) << pin;
            outputs |= std::uint32_t(device.GetOutput(pin)) << pin;
        }
        const std::tuple<std::uint32_t, unsigned long, std::size_t> queries[] = {
            {device.GetAvailablePins(), type_bits, 1}, {device.GetConfigurablePins(), LED_BITS, 5},
            {inputs, KEYS, 1}, {outputs, LEDS, 1}, {device.ReadInputLevels(), KEYS, 1},
            {device.ReadOutputLevels(), LEDS, 1}, {device.ReadModes(), LEDS, 5},
            {device.ReadAvailablePins(), type_bits, 1}, {device.ReadConfigurablePins(), LED_BITS, 5}};
        for (const auto& [value, request, byte] : queries)
            EXPECT_EQ(Le32(value), Filled(request).substr(byte, 4)) << std::hex << request << " byte " << byte;
    }

    // Zero time, EV_LED, the code and the value, little-endian.
    const auto event = [](std::uint16_t code, std::int32_t value) {
        return std::string(16, '\0') + "\x11" + '\0' + Le32(code).substr(0, 2) + Le32(std::uint32_t(value));
    };
    LinuxEventDevice leds(path, EV_LED);
    const unsigned int pin = std::countr_zero(leds.GetConfigurablePins());
    leds.SetOutput(3, true);
    leds.SetOutput(31, false);
    leds.SetMode(pin, GpioBase::GPIO_MODE_SPECIAL);
    leds.SetPinOption(pin, -2);
    EXPECT_EQ(vxtest::ReadFile(path), event(11, 1) + event(39, 0) + event(pin + 40, 2) + event(pin + 72, -2));

    const std::string key = Le32(5) + Le32(0) + Le32(6) + Le32(0) + "\x01" + '\0' + "\x14" + '\0' + Le32(1);
    LinuxEventDevice keys(dir.WriteFile("events", key + key.substr(0, 23)), EV_KEY);
    input_event e{};
    keys.ReadEvent(e);
    EXPECT_EQ(std::make_tuple(e.input_event_sec, e.input_event_usec, e.type, e.code, e.value),
              std::make_tuple(5L, 6L, EV_KEY, 20, 1));
    EXPECT_EQ(WhatOf([&] { keys.ReadEvent(e); }), "Input/output error (errno 5)");
}

TEST(LinuxEventDevice, AFailingQueryIsAnErrorWithoutContext)
{
    vxtest::TempDir dir; // a regular file answers no query
    EXPECT_EQ(WhatOf([&] { LinuxEventDevice(dir.WriteFile("plain", ""), EV_LED); }),
              "Inappropriate ioctl for device (errno 25)");
}

} // namespace
