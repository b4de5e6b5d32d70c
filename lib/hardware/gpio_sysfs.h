// One GPIO pin through the kernel's sysfs interface, "/sys/class/gpio".
#pragma once

#include <cstdint>

#include "hardware/gpio_base.h"
#include "platform/handles.h"

inline constexpr const char* GPIO_SYSFS_PATH = "/sys/class/gpio";

class GpioSysfs : public GpioBase {
public:
    // "GPIO<pin> <operation>: <errno> (<strerror text>)".
    class BadReadException : public GpioBase::Exception {
    public:
        BadReadException(std::uint32_t pin, const char* operation, int error);
    };
    class BadWriteException : public GpioBase::Exception {
    public:
        BadWriteException(std::uint32_t pin, const char* operation, int error);
    };

    // Exports the pin unless "/sys/class/gpio/gpio<pin>" exists (writing
    // "<pin>\n" to the export file; a failure there is reported as
    // "Failed to export GPIO<pin>: <what>\n" and rethrown), opens its value
    // and direction files read-write and close-on-exec, and reads one byte of
    // the direction ('i': input, anything else: output). The pin stays
    // exported after destruction.
    explicit GpioSysfs(std::uint32_t pin);

    // Sets the pin up: input (mode 0, any state), or output low/high (mode 1,
    // state 0/1), or left as an input (mode 1, state 2). Anything else is a
    // fatal assertion.
    void Initialize(GPIO_MODE mode, GPIO_STATE state);
    // The level: the first byte of the value file, '0' or '1'.
    bool Read();
    void SetHigh();
    void SetLow();
    void SetInput();

private:
    void Drive(char level);

    corvid::UniqueFd m_value_fd;
    corvid::UniqueFd m_direction_fd;
    std::uint32_t m_pin;
    bool m_is_output = false; // the direction last read or written
};
