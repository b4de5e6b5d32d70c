// The vocabulary of the GPIO classes: pin modes and states, and their
// exceptions.
#pragma once

#include <exception>
#include <string>
#include <utility>

class GpioBase {
public:
    enum GPIO_MODE {
        GPIO_MODE_INPUT = 0,
        GPIO_MODE_OUTPUT = 1,
        GPIO_MODE_SPECIAL = 2, // a mode of the board's own driver; sysfs pins have none
    };
    enum GPIO_STATE {
        GPIO_STATE_LOW = 0,
        GPIO_STATE_HIGH = 1,
        GPIO_STATE_RELEASED = 2, // left as an input
    };

    class Exception : public std::exception {
    public:
        explicit Exception(std::string text) : m_text(std::move(text)) {}
        const char* what() const noexcept override { return m_text.c_str(); }

    private:
        std::string m_text;
    };
};

// A pin that the device does not have, or cannot configure as asked.
class PinNotAvailableException : public std::exception {
public:
    const char* what() const noexcept override { return "Pin not available"; }
};
