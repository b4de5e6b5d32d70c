// The board's GPIO input device, "/dev/input/veltrix-gpio": up to 32 pins
// exposed as one Linux input device. Inputs appear as key events (pin n is
// key code n + 8); outputs, pin modes and pin options are driven by writing
// LED events:
//   code n + 8    EV_LED  level of output pin n (write to drive, query to read)
//   code n + 40   EV_LED  mode of pin n (a GpioBase::GPIO_MODE)
//   code n + 72   EV_LED  an option of configurable pin n (passed through)
// Every write is one struct input_event with zero time fields and type EV_LED.
#pragma once

#include <linux/input.h>

#include <cstdint>
#include <string>

#include "hardware/gpio_base.h"
#include "platform/handles.h"

inline constexpr const char* GPIO_EVENT_DEVICE_PATH = "/dev/input/veltrix-gpio";

// The device interface. The operations are in the order of the device
// class's virtual slots. GetInput and SetOutputs, the two operations the
// LED display needs, are built on the slots here, so that they work on any
// EventDevice (the fake of the tests included).
class EventDevice {
public:
    EventDevice(const EventDevice&) = delete;
    EventDevice& operator=(const EventDevice&) = delete;
    virtual ~EventDevice() = default;

    virtual int GetFd() const = 0;
    virtual std::uint32_t GetAvailablePins() const = 0;
    // PinNotAvailableException for a pin above 31.
    virtual void SetOutput(unsigned int pin, bool level) = 0;
    virtual bool GetOutput(unsigned int pin) = 0;
    virtual std::uint32_t ReadOutputLevels() = 0;
    virtual std::uint32_t ReadInputLevels() = 0;
    virtual void SetMode(unsigned int pin, GpioBase::GPIO_MODE mode) = 0;
    virtual std::uint32_t GetConfigurablePins() const = 0;
    virtual std::uint32_t ReadModes() = 0;
    virtual void SetPinOption(unsigned int pin, int value) = 0;
    virtual void ReadEvent(input_event& event) = 0;
    // Maps a pin number to the device's own numbering: the same number.
    virtual int MapPin(int pin) const = 0;
    virtual std::uint32_t ReadAvailablePins() = 0;
    virtual std::uint32_t ReadConfigurablePins() = 0;

    // Bit pin of the input levels; PinNotAvailableException above 31.
    bool GetInput(unsigned int pin);
    // Drives the pins of mask to the levels of levels with the fewest writes:
    // one per pin whose level changes, lowest pin first; none when nothing
    // changes.
    void SetOutputs(std::uint32_t levels, std::uint32_t mask);

protected:
    EventDevice() = default;
};

class LinuxEventDevice : public EventDevice {
public:
    // Opens path read-write and close-on-exec (ErrnoException with the path)
    // and reads the available and configurable pins once (ErrnoException
    // without context; the device is closed again). type is EV_KEY for the
    // input side or EV_LED for the output side.
    LinuxEventDevice(const std::string& path, int type);

    int GetFd() const override { return m_fd.Get(); }
    std::uint32_t GetAvailablePins() const override { return m_available_pins; }
    void SetOutput(unsigned int pin, bool level) override;
    bool GetOutput(unsigned int pin) override;
    std::uint32_t ReadOutputLevels() override;
    std::uint32_t ReadInputLevels() override;
    void SetMode(unsigned int pin, GpioBase::GPIO_MODE mode) override;
    std::uint32_t GetConfigurablePins() const override { return m_configurable_pins; }
    std::uint32_t ReadModes() override;
    void SetPinOption(unsigned int pin, int value) override;
    void ReadEvent(input_event& event) override;
    int MapPin(int pin) const override { return pin; }
    std::uint32_t ReadAvailablePins() override;
    std::uint32_t ReadConfigurablePins() override;

private:
    // The 32 bits at byte of a 97-byte bit array that request fills.
    std::uint32_t Query(unsigned long request, std::size_t byte);
    void WriteEvent(unsigned int code, int value);

    corvid::UniqueFd m_fd;
    int m_type;
    std::size_t m_byte_offset; // byte of pin 0 (code 8) in the bit arrays
    std::uint32_t m_available_pins = 0;
    std::uint32_t m_configurable_pins = 0;
};

// The board's device, at "/dev/input/veltrix-gpio" of the process's context.
class VeltrixEventDevice : public LinuxEventDevice {
public:
    struct InputSide {};
    struct OutputSide {};
    // The key side (EV_KEY): input pins.
    explicit VeltrixEventDevice(InputSide);
    // The LED side (EV_LED): output pins, modes and options.
    explicit VeltrixEventDevice(OutputSide);
};
