// The exception of a failed start-up check.
#pragma once

#include <stdexcept>
#include <string>

#include "hardware/leds.h"

class HardwareFailure : public std::runtime_error {
public:
    HardwareFailure(const std::string& message, ErrorLedPattern pattern)
        : std::runtime_error(message), m_pattern(pattern)
    {
    }

    ErrorLedPattern GetPattern() const noexcept { return m_pattern; }

private:
    ErrorLedPattern m_pattern;
};
