// The sysfs pin's file traffic, over regular files at the live paths of a
// scratch root, and the event device's operations on the fake board. The
// device class itself is proven against the simulated player's device.
#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "hardware/event_device.h"
#include "hardware/gpio_sysfs.h"
#include "support/fake_context.h"
#include "support/oracles.h"
#include "support/programs.h"

namespace {

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

    board.input_levels = [](std::uint64_t) { return 1u << 12; };
    const auto keys = context.OpenGpioEventDevice(EV_KEY);
    EXPECT_TRUE(keys->GetInput(12));
    EXPECT_FALSE(keys->GetInput(11));
    EXPECT_EQ(WhatOf([&] { keys->GetInput(32); }), "Pin not available");
}

TEST(LinuxEventDevice, AFailingQueryIsAnErrorWithoutContext)
{
    vxtest::TempDir dir; // a regular file answers no query
    EXPECT_EQ(WhatOf([&] { LinuxEventDevice(dir.WriteFile("plain", ""), EV_LED); }),
              "Inappropriate ioctl for device (errno 25)");
}

} // namespace
