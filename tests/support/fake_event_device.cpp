#include "support/fake_event_device.h"

FakeEventDevice::FakeEventDevice(FakeGpioBoard& board, FakeClock& clock, int type)
    : m_board(board), m_clock(clock), m_type(type)
{
    ++m_board.open_sides;
}

std::uint32_t FakeEventDevice::GetAvailablePins() const
{
    return m_type == EV_KEY ? m_board.inputs : m_board.outputs;
}

void FakeEventDevice::SetOutput(unsigned int pin, bool level)
{
    if (pin > 31)
        throw PinNotAvailableException();
    m_board.events.push_back({m_clock.NowNanoseconds(), pin + 8, level ? 1 : 0});
    if ((m_board.outputs >> pin) & 1)
        m_board.output_levels = (m_board.output_levels & ~(1u << pin)) | (std::uint32_t(level) << pin);
}

std::uint32_t FakeEventDevice::ReadInputLevels()
{
    return m_board.input_levels ? m_board.input_levels(m_clock.NowNanoseconds()) : 0;
}
