// A monotonic clock that moves only when the code under test sleeps, and
// keeps the sleeps it was asked for.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/clock.h"

class FakeClock : public corvid::Clock {
public:
    explicit FakeClock(std::uint64_t start_ns = 1'000'000'000) : m_now_ns(start_ns) {}

    timespec Monotonic() override
    {
        return {static_cast<time_t>(m_now_ns / 1'000'000'000),
                static_cast<long>(m_now_ns % 1'000'000'000)};
    }
    void SleepMicroseconds(unsigned int microseconds) override
    {
        m_sleeps.push_back(microseconds);
        m_now_ns += std::uint64_t(microseconds) * 1000;
    }

    std::uint64_t NowNanoseconds() const { return m_now_ns; }
    const std::vector<unsigned int>& Sleeps() const { return m_sleeps; }

private:
    std::uint64_t m_now_ns;
    std::vector<unsigned int> m_sleeps;
};
