#include "hardware/event_device.h"

#include <fcntl.h>
#include <sys/ioctl.h>

#include <array>
#include <cerrno>

#include "hardware/context.h"
#include "platform/binary_fields.h"
#include "platform/posix_helpers.h"

static_assert(sizeof(input_event) == 24, "the device takes 24-byte events");

namespace {

// Every query fills this many bytes of bit array.
constexpr std::size_t QUERY_LENGTH = 97;
// Byte of code 40 (the modes) and of the configurable pins in the LED arrays.
constexpr std::size_t MODE_BYTE = 5;
constexpr unsigned int LEVEL_CODE = 8;
constexpr unsigned int MODE_CODE = 40;
constexpr unsigned int OPTION_CODE = 72;
constexpr unsigned int PINS = 32;

void CheckPin(unsigned int pin)
{
    if (pin >= PINS)
        throw PinNotAvailableException();
}

bool Bit(std::uint32_t mask, unsigned int pin)
{
    return (mask >> (pin % PINS)) & 1;
}

} // namespace

bool EventDevice::GetInput(unsigned int pin)
{
    CheckPin(pin);
    return Bit(ReadInputLevels(), pin);
}

void EventDevice::SetOutputs(std::uint32_t levels, std::uint32_t mask)
{
    const std::uint32_t changed = (ReadOutputLevels() ^ levels) & mask;
    for (unsigned int pin = 0; pin < PINS; ++pin) {
        if (Bit(changed, pin))
            SetOutput(pin, Bit(levels, pin));
    }
}

LinuxEventDevice::LinuxEventDevice(const std::string& path, int type)
    : m_fd(corvid::OpenThrow(path, O_RDWR)), m_type(type),
      m_byte_offset((type & ~0x10) == 1 ? 1 : 0)
{
    // A failing query closes the device again (m_fd) before the error passes.
    m_available_pins = ReadAvailablePins();
    m_configurable_pins = ReadConfigurablePins();
}

std::uint32_t LinuxEventDevice::Query(unsigned long request, std::size_t byte)
{
    std::array<std::uint8_t, QUERY_LENGTH + 3> bits{}; // room for 4 bytes from any byte
    if (::ioctl(m_fd.Get(), request, bits.data()) < 0)
        throw corvid::ErrnoException(errno);
    return corvid::LoadLe32(bits.data() + byte);
}

void LinuxEventDevice::WriteEvent(unsigned int code, int value)
{
    input_event event{};
    event.type = EV_LED;
    event.code = static_cast<std::uint16_t>(code);
    event.value = value;
    corvid::write_all_throw(m_fd.Get(), &event, sizeof event);
}

void LinuxEventDevice::SetOutput(unsigned int pin, bool level)
{
    CheckPin(pin);
    WriteEvent(pin + LEVEL_CODE, level ? 1 : 0);
}

bool LinuxEventDevice::GetOutput(unsigned int pin)
{
    CheckPin(pin);
    return Bit(ReadOutputLevels(), pin);
}

std::uint32_t LinuxEventDevice::ReadOutputLevels()
{
    return Query(EVIOCGLED(QUERY_LENGTH), m_byte_offset);
}

std::uint32_t LinuxEventDevice::ReadInputLevels()
{
    return Query(EVIOCGKEY(QUERY_LENGTH), m_byte_offset);
}

void LinuxEventDevice::SetMode(unsigned int pin, GpioBase::GPIO_MODE mode)
{
    if (Bit(GetConfigurablePins(), pin)) {
        WriteEvent(pin + MODE_CODE, mode);
        return;
    }
    // A pin of the device's fixed direction needs nothing.
    const bool fixed = (mode == GpioBase::GPIO_MODE_OUTPUT && m_type == EV_LED) ||
                       (mode == GpioBase::GPIO_MODE_INPUT && m_type == EV_KEY);
    if (Bit(GetAvailablePins(), pin) && fixed)
        return;
    throw PinNotAvailableException();
}

std::uint32_t LinuxEventDevice::ReadModes()
{
    return Query(EVIOCGLED(QUERY_LENGTH), MODE_BYTE);
}

void LinuxEventDevice::SetPinOption(unsigned int pin, int value)
{
    CheckPin(pin);
    if (!Bit(m_configurable_pins, pin))
        throw PinNotAvailableException();
    WriteEvent(pin + OPTION_CODE, value);
}

void LinuxEventDevice::ReadEvent(input_event& event)
{
    if (corvid::read_all_throw(m_fd.Get(), &event, sizeof event) < sizeof event)
        throw corvid::ErrnoException(EIO);
}

std::uint32_t LinuxEventDevice::ReadAvailablePins()
{
    return Query(EVIOCGBIT(m_type, QUERY_LENGTH), m_byte_offset);
}

std::uint32_t LinuxEventDevice::ReadConfigurablePins()
{
    return Query(EVIOCGBIT(EV_LED, QUERY_LENGTH), MODE_BYTE);
}

VeltrixEventDevice::VeltrixEventDevice(InputSide)
    : LinuxEventDevice(Context::GetInstance()->Path(GPIO_EVENT_DEVICE_PATH), EV_KEY)
{
}

VeltrixEventDevice::VeltrixEventDevice(OutputSide)
    : LinuxEventDevice(Context::GetInstance()->Path(GPIO_EVENT_DEVICE_PATH), EV_LED)
{
}
