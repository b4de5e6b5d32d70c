// The board's GPIO event device in memory: both sides (keys and LEDs) share
// one FakeGpioBoard, which keeps every event written with the fake clock's
// time, and whose input levels a test can script over time.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <vector>

#include "hardware/event_device.h"
#include "support/fake_clock.h"

struct FakeGpioBoard {
    struct Event {
        std::uint64_t ns; // the fake clock's time of the write
        unsigned int code;
        int value;
        bool operator==(const Event&) const = default;
        friend void PrintTo(const Event& e, std::ostream* out) { *out << e.ns << ":" << e.code << "=" << e.value; }
    };
    bool present = true; // false: opening fails as for a missing node
    std::uint32_t inputs = 0x1000, outputs = 0x200, output_levels = 0;
    std::function<std::uint32_t(std::uint64_t ns)> input_levels; // all low when unset
    std::vector<Event> events;
    int open_sides = 0;
};

class FakeEventDevice final : public EventDevice {
public:
    FakeEventDevice(FakeGpioBoard& board, FakeClock& clock, int type) : m_board(board), m_clock(clock), m_type(type)
    {
        ++m_board.open_sides;
    }
    ~FakeEventDevice() override { --m_board.open_sides; }

    void SetOutput(unsigned int pin, bool level) override
    {
        if (pin > 31)
            throw PinNotAvailableException();
        m_board.events.push_back({m_clock.NowNanoseconds(), pin + 8, level ? 1 : 0});
        if ((m_board.outputs >> pin) & 1)
            m_board.output_levels = (m_board.output_levels & ~(1u << pin)) | (std::uint32_t(level) << pin);
    }
    std::uint32_t ReadInputLevels() override
    {
        return m_board.input_levels ? m_board.input_levels(m_clock.NowNanoseconds()) : 0;
    }
    std::uint32_t GetAvailablePins() const override { return m_type == EV_KEY ? m_board.inputs : m_board.outputs; }
    std::uint32_t ReadOutputLevels() override { return m_board.output_levels; }
    bool GetOutput(unsigned int pin) override { return (ReadOutputLevels() >> pin) & 1; }
    int GetFd() const override { return -1; }
    void SetMode(unsigned int, GpioBase::GPIO_MODE) override {}
    std::uint32_t GetConfigurablePins() const override { return 0; }
    std::uint32_t ReadModes() override { return 0; }
    void SetPinOption(unsigned int, int) override {}
    void ReadEvent(input_event&) override {}
    int MapPin(int pin) const override { return pin; }
    std::uint32_t ReadAvailablePins() override { return GetAvailablePins(); }
    std::uint32_t ReadConfigurablePins() override { return 0; }

private:
    FakeGpioBoard& m_board;
    FakeClock& m_clock;
    int m_type;
};
