// A monotonic clock that moves only when the code under test sleeps, and
// keeps the sleeps it was asked for.
#pragma once

#include <cstdint>
#include <functional>
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
        if (on_sleep)
            on_sleep(m_now_ns);
    }

    std::uint64_t NowNanoseconds() const { return m_now_ns; }
    void SetNanoseconds(std::uint64_t ns) { m_now_ns = ns; }
    const std::vector<unsigned int>& Sleeps() const { return m_sleeps; }

    // Called after each sleep with the new time (to raise a signal, say).
    std::function<void(std::uint64_t ns)> on_sleep;

private:
    std::uint64_t m_now_ns;
    std::vector<unsigned int> m_sleeps;
};
