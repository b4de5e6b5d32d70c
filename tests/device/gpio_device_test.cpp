// The GPIO classes against the simulated player's hardware: the kernel's
// sysfs GPIO over the project's chip module (line 64 high, not exported
// before the test) and the emulated event device (inputs 0x1000, outputs
// 0x200, configurable 0x200, pin 12 pressed 500 ms after the first write).
// The events the device saw are asserted by the scenario from its log.
#include <linux/input.h>

#include <chrono>
#include <thread>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "hardware/event_device.h"
#include "hardware/gpio_sysfs.h"

namespace {

TEST(GpioSysfsDevice, ExportsTheLineAndDrivesIt)
{
    ASSERT_FALSE(boost::filesystem::exists("/sys/class/gpio/gpio64"));
    GpioSysfs line(64);
    EXPECT_TRUE(boost::filesystem::exists("/sys/class/gpio/gpio64"));
    EXPECT_TRUE(line.Read());
    line.SetLow();
    EXPECT_FALSE(line.Read());
    line.SetHigh();
    EXPECT_TRUE(line.Read());
    line.Initialize(GpioBase::GPIO_MODE_INPUT, GpioBase::GPIO_STATE_LOW);
    EXPECT_TRUE(line.Read()); // the input level again
    GpioSysfs again(64);      // exported already: opened as it is
    EXPECT_TRUE(again.Read());
}

TEST(VeltrixEventDeviceDevice, QueriesWritesAndButton)
{
    VeltrixEventDevice keys{VeltrixEventDevice::InputSide{}};
    VeltrixEventDevice leds{VeltrixEventDevice::OutputSide{}};
    EXPECT_EQ(keys.GetAvailablePins(), 0x1000u);
    EXPECT_EQ(leds.GetAvailablePins(), 0x200u);
    EXPECT_EQ(leds.GetConfigurablePins(), 0x200u);
    EXPECT_EQ(leds.ReadOutputLevels(), 0u);

    leds.SetOutputs(0x200, 0x200); // one write: code 17 value 1
    leds.SetOutputs(0x200, 0x200); // none
    EXPECT_TRUE(leds.GetOutput(9));
    leds.SetMode(9, GpioBase::GPIO_MODE_OUTPUT);  // configurable: code 49 value 1
    EXPECT_EQ(leds.ReadModes(), 0x200u);
    leds.SetPinOption(9, 7);                      // code 81 value 7
    EXPECT_THROW(leds.SetPinOption(8, 1), PinNotAvailableException);
    EXPECT_THROW(keys.SetMode(11, GpioBase::GPIO_MODE_INPUT), PinNotAvailableException);
    keys.SetMode(12, GpioBase::GPIO_MODE_INPUT);  // fixed direction: nothing written
    leds.SetOutputs(0, 0x200);                    // code 17 value 0

    EXPECT_FALSE(keys.GetInput(12));
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    EXPECT_TRUE(keys.GetInput(12));
}

} // namespace
